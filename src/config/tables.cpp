// The settings that sit beside the key table: columns, fonts, the colour states and key bindings, and
// their defaults.
#include "config/config_internal.h"
#include "text/text.h"

config_column_t config_columns[CONFIG_COLUMN_COUNT];
config_font_t config_fonts[CONFIG_FONT_COUNT];
config_color_t config_colors[CONFIG_COLOR_COUNT];
config_vec_t<config_binding_t> config_bindings;
int config_screen_ppi = 96;

// Default columns at 96 pixels per inch: name, path, size and date modified are shown.
static const config_column_t _column_defaults[CONFIG_COLUMN_COUNT] = {
    {"name", 1, 0, 256},
    {"path", 1, 1, 256},
    {"size", 1, 2, 96},
    {"extension", 0, 3, 64},
    {"type", 0, 4, 128},
    {"last_write_time", 1, 5, 128},
    {"creation_time", 0, 6, 128},
    {"date_accessed", 0, 7, 128},
    {"attribute", 0, 8, 64},
    {"date_recently_changed", 0, 9, 128},
    {"run_count", 0, 10, 64},
    {"date_run", 0, 11, 128},
    {"file_list_filename", 0, 12, 256},
};

static const char *const _font_names[CONFIG_FONT_COUNT] = {"result_list", "search_edit", "status_bar",
                                                           "header"};

static const char *const _color_names[CONFIG_COLOR_COUNT] = {
    "normal",
    "highlighted",
    "current_sort",
    "current_sort_highlighted",
    "selected",
    "selected_highlighted",
    "selected_inactive",
    "selected_inactive_highlighted",
    "drop_target",
    "drop_target_highlighted",
    "mouseover",
    "mouseover_highlighted",
    "mouseover_current_sort",
    "mouseover_current_sort_highlighted",
    "alternate_row",
    "alternate_row_highlighted",
    "current_sort_alternate_row",
    "current_sort_alternate_row_highlighted",
    "hot",
    "hot_highlighted",
    "selected_hot",
    "selected_hot_highlighted",
    "selected_inactive_hot",
    "selected_inactive_hot_highlighted",
    "thumbnail_mouseover",
    "thumbnail_mouseover_highlighted",
};

// ---- colours -------------------------------------------------------------------------------------------

bool config_parse_color(const char *value, uint32_t *out) {
    const char *p = value[0] == '#' ? value + 1 : value;
    int n = (int) strlen(p);
    if (n != 3 && n != 6) {
        return false;
    }
    uint32_t v = 0;
    for (int i = 0; i < n; i++) {
        int d = text_hex_digit(p[i]);
        if (d < 0) {
            return false;
        }
        // A digit of the short form counts twice: "#f80" is "#ff8800".
        v = n == 3 ? (v << 8) | (uint32_t) (d * 17) : (v << 4) | (uint32_t) d;
    }
    *out = v;
    return true;
}

static void _color_load(const ini_t *ini, const char *key, uint32_t *slot) {
    const char *v = ini_get(ini, key, nullptr);
    if (v) {
        config_parse_color(v, slot);
    }
}

static void _color_write(str_t *out, const char *key, uint32_t color) {
    if (color & 0xFF000000u) {
        str_cat_printf(out, "%s=\r\n", key);
    } else {
        str_cat_printf(out, "%s=#%06x\r\n", key, color);
    }
}

// ---- defaults and freeing --------------------------------------------------------------------------------

void config_tables_defaults() {
    for (int i = 0; i < CONFIG_COLUMN_COUNT; i++) {
        config_columns[i] = _column_defaults[i];
        config_columns[i].width = _column_defaults[i].width * config_screen_ppi / 96;
    }
    for (int i = 0; i < CONFIG_FONT_COUNT; i++) {
        mem_free(config_fonts[i].face);
        config_fonts[i].name = _font_names[i];
        config_fonts[i].face = config_dup("");
        config_fonts[i].size = 0;
    }
    for (int i = 0; i < CONFIG_COLOR_COUNT; i++) {
        config_colors[i].name = _color_names[i];
        config_colors[i].background = CONFIG_COLOR_UNSET;
        config_colors[i].foreground = CONFIG_COLOR_UNSET;
        // Search terms inside names stand out by weight until the user picks colours for them.
        size_t n = strlen(_color_names[i]);
        bool highlighted = n > 12 && strcmp(_color_names[i] + n - 12, "_highlighted") == 0;
        highlighted = highlighted || strcmp(_color_names[i], "highlighted") == 0;
        config_colors[i].weight = highlighted ? CONFIG_WEIGHT_BOLD : CONFIG_WEIGHT_NORMAL;
    }
    translucent_selection_rectangle_background_color = CONFIG_COLOR_UNSET;
    translucent_selection_rectangle_border_color = CONFIG_COLOR_UNSET;
    thumbnail_mouseover_border_color = CONFIG_COLOR_UNSET;
    preview_background_color = CONFIG_COLOR_UNSET;
    config_bindings_free(&config_bindings);
}

void config_tables_free() {
    for (int i = 0; i < CONFIG_FONT_COUNT; i++) {
        mem_free(config_fonts[i].face);
        config_fonts[i].face = nullptr;
    }
    config_bindings_free(&config_bindings);
}

// ---- reading -------------------------------------------------------------------------------------------

static void _number_load(const ini_t *ini, const char *key, int32_t *slot) {
    const char *v = ini_get(ini, key, nullptr);
    if (v) {
        *slot = config_parse_number(v);
    }
}

static void _columns_load(const ini_t *ini) {
    str_t key;
    str_init(&key);
    for (int i = 0; i < CONFIG_COLUMN_COUNT; i++) {
        config_column_t *c = &config_columns[i];
        if (i > 0) {
            str_printf(&key, "%s_column_visible", c->name);
            _number_load(ini, key.ptr, &c->visible);
        }
        str_printf(&key, "%s_column_pos", c->name);
        _number_load(ini, key.ptr, &c->pos);
        str_printf(&key, "%s_column_width", c->name);
        _number_load(ini, key.ptr, &c->width);
    }
    str_kill(&key);
}

static void _fonts_load(const ini_t *ini) {
    str_t key;
    str_init(&key);
    for (int i = 0; i < CONFIG_FONT_COUNT; i++) {
        str_printf(&key, "%s_font", config_fonts[i].name);
        const char *v = ini_get(ini, key.ptr, nullptr);
        if (v) {
            mem_free(config_fonts[i].face);
            config_fonts[i].face = config_dup(v);
        }
        str_printf(&key, "%s_font_size", config_fonts[i].name);
        _number_load(ini, key.ptr, &config_fonts[i].size);
    }
    str_kill(&key);
}

static void _colors_load(const ini_t *ini) {
    str_t key;
    str_init(&key);
    for (int i = 0; i < CONFIG_COLOR_COUNT; i++) {
        config_color_t *c = &config_colors[i];
        str_printf(&key, "%s_background_color", c->name);
        _color_load(ini, key.ptr, &c->background);
        str_printf(&key, "%s_foreground_color", c->name);
        _color_load(ini, key.ptr, &c->foreground);
        str_printf(&key, "%s_bold", c->name);
        const char *v = ini_get(ini, key.ptr, nullptr);
        if (v && *v) {
            c->weight = config_parse_number(v) ? CONFIG_WEIGHT_BOLD : CONFIG_WEIGHT_NORMAL;
        }
    }
    str_kill(&key);
}

// The table is read first; then these, in the order of the file.
void config_tables_load(const ini_t *ini) {
    _columns_load(ini);
    _color_load(ini, "translucent_selection_rectangle_background_color",
                &translucent_selection_rectangle_background_color);
    _color_load(ini, "translucent_selection_rectangle_border_color",
                &translucent_selection_rectangle_border_color);
    _color_load(ini, "thumbnail_mouseover_border_color", &thumbnail_mouseover_border_color);
    _color_load(ini, "preview_background_color", &preview_background_color);
    config_lists_load(ini);
    _fonts_load(ini);
    _colors_load(ini);
    config_bindings_load(ini);
}

// ---- writing -------------------------------------------------------------------------------------------

void config_columns_write(str_t *out) {
    for (int i = 0; i < CONFIG_COLUMN_COUNT; i++) {
        const config_column_t *c = &config_columns[i];
        if (i > 0) {
            str_cat_printf(out, "%s_column_visible=%d\r\n", c->name, c->visible);
        }
        str_cat_printf(out, "%s_column_pos=%d\r\n", c->name, c->pos);
        str_cat_printf(out, "%s_column_width=%d\r\n", c->name, c->width);
    }
    _color_write(out, "translucent_selection_rectangle_background_color",
                 translucent_selection_rectangle_background_color);
    _color_write(out, "translucent_selection_rectangle_border_color",
                 translucent_selection_rectangle_border_color);
    _color_write(out, "thumbnail_mouseover_border_color", thumbnail_mouseover_border_color);
    _color_write(out, "preview_background_color", preview_background_color);
}

// A text is written up to its first line feed: the line would otherwise end inside the value.
static void _text_write(str_t *out, const char *text) {
    const char *lf = strchr(text, '\n');
    str_cat(out, text, lf ? (int) (lf - text) : (int) strlen(text));
}

void config_fonts_colors_write(str_t *out) {
    for (int i = 0; i < CONFIG_FONT_COUNT; i++) {
        str_cat_printf(out, "%s_font=", config_fonts[i].name);
        _text_write(out, config_fonts[i].face);
        str_cat_printf(out, "\r\n%s_font_size=%d\r\n", config_fonts[i].name, config_fonts[i].size);
    }
    str_t key;
    str_init(&key);
    for (int i = 0; i < CONFIG_COLOR_COUNT; i++) {
        const config_color_t *c = &config_colors[i];
        str_printf(&key, "%s_background_color", c->name);
        _color_write(out, key.ptr, c->background);
        str_printf(&key, "%s_foreground_color", c->name);
        _color_write(out, key.ptr, c->foreground);
        str_cat_printf(out, "%s_bold=%d\r\n", c->name, c->weight != CONFIG_WEIGHT_NORMAL ? 1 : 0);
    }
    str_kill(&key);
}

// ---- key bindings --------------------------------------------------------------------------------------

void config_bindings_free(config_vec_t<config_binding_t> *v) {
    for (int i = 0; i < v->count; i++) {
        mem_free(v->items[i].name);
        mem_free(v->items[i].values);
    }
    config_vec_release(v);
}

const config_binding_t *config_binding_find(const char *name) {
    for (int i = 0; i < config_bindings.count; i++) {
        if (strcmp(config_bindings.items[i].name, name) == 0) {
            return &config_bindings.items[i];
        }
    }
    return nullptr;
}

static bool _is_binding_key(const char *key) {
    size_t n = strlen(key);
    return n > 5 && strcmp(key + n - 5, "_keys") == 0;
}

// Replaces (or adds, in name order) the binding line of one command.
static void _binding_set(const char *name, const char *value) {
    config_vec_t<char *> items = {};
    config_list_parse(value, &items);
    uint32_t *values = (uint32_t *) mem_alloc(sizeof(uint32_t) * (size_t) (items.count ? items.count : 1));
    int count = 0;
    for (int i = 0; i < items.count; i++) {
        uint32_t v = (uint32_t) config_parse_number(items.items[i]);
        // A zero key code binds nothing, which is also how "0" clears a command's bindings.
        if (v & 0xFF) {
            values[count++] = v;
        }
    }
    config_strings_free(&items);

    int at = 0;
    while (at < config_bindings.count && strcmp(config_bindings.items[at].name, name) < 0) {
        at++;
    }
    if (at < config_bindings.count && strcmp(config_bindings.items[at].name, name) == 0) {
        mem_free(config_bindings.items[at].values);
    } else {
        config_vec_push(&config_bindings);
        memmove(&config_bindings.items[at + 1], &config_bindings.items[at],
                sizeof(config_binding_t) * (size_t) (config_bindings.count - 1 - at));
        config_bindings.items[at].name = config_dup(name);
    }
    config_bindings.items[at].values = values;
    config_bindings.items[at].count = count;
}

void config_bindings_load(const ini_t *ini) {
    for (int i = 0; i < ini->count; i++) {
        if (_is_binding_key(ini->pairs[i].key)) {
            _binding_set(ini->pairs[i].key, ini->pairs[i].value);
        }
    }
}

void config_bindings_write(str_t *out) {
    for (int i = 0; i < config_bindings.count; i++) {
        const config_binding_t *b = &config_bindings.items[i];
        str_cat_printf(out, "%s=", b->name);
        for (int j = 0; j < b->count; j++) {
            str_cat_printf(out, j ? ",%u" : "%u", b->values[j]);
        }
        str_cat(out, "\r\n", 2);
    }
}
