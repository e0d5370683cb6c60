// Helpers shared by the files of the settings module; not for other modules.
#pragma once

#include <cstring>

#include "config/config.h"
#include "mem/mem.h"

// Appends one zero-filled entry and returns it.
template <typename T>
T *config_vec_push(config_vec_t<T> *v) {
    if (v->count == v->cap) {
        v->cap = v->cap ? v->cap * 2 : 8;
        v->items = (T *) mem_realloc(v->items, sizeof(T) * (size_t) v->cap);
    }
    T *item = &v->items[v->count++];
    memset((void *) item, 0, sizeof(T));
    return item;
}

// Frees the array only; the caller has freed what the entries own.
template <typename T>
void config_vec_release(config_vec_t<T> *v) {
    mem_free(v->items);
    v->items = nullptr;
    v->count = 0;
    v->cap = 0;
}

// A heap copy of a zero-terminated text.
inline char *config_dup(const char *text) {
    return mem_dup(text, strlen(text));
}

// Replaces a heap text setting, freeing the old one unless it is the shared empty text.
void config_text_set(char **slot, const char *value);
void config_text_free(char **slot);

// The entry lists: free each entry's texts and the array.
void config_volumes_free(config_vec_t<config_volume_t> *v);
void config_filelists_free(config_vec_t<config_filelist_t> *v);
void config_folders_free(config_vec_t<config_folder_t> *v);
void config_connects_free(config_vec_t<config_connect_t> *v);
void config_rewrites_free(config_vec_t<config_rewrite_t> *v);
void config_bindings_free(config_vec_t<config_binding_t> *v);

// Deep copies for the frozen copy.
void config_volumes_copy(config_vec_t<config_volume_t> *to, const config_vec_t<config_volume_t> *from);
void config_filelists_copy(config_vec_t<config_filelist_t> *to, const config_vec_t<config_filelist_t> *from);
void config_folders_copy(config_vec_t<config_folder_t> *to, const config_vec_t<config_folder_t> *from);
void config_strings_copy(config_vec_t<char *> *to, const config_vec_t<char *> *from);

// Reading and writing of the list keys, the column, font, colour and binding keys.
void config_lists_load(const ini_t *ini);
void config_lists_write(str_t *out);
void config_tables_load(const ini_t *ini);
void config_columns_write(str_t *out);
void config_fonts_colors_write(str_t *out);
void config_bindings_load(const ini_t *ini);
void config_bindings_write(str_t *out);
void config_tables_defaults();
void config_tables_free();
