// sws's process: settings, sources, the index through the program's own load and build, one search, the
// output. The work runs in the program's main loop: the index's jobs end in events on this thread, and the
// query's callback moves the run from one step to the next.
#include <atomic>
#include <cstring>

#include "config/config.h"
#include "db/db.h"
#include "db/dbfile.h"
#include "db_create/db_create.h"
#include "db_query/db_query.h"
#include "debug/debug.h"
#include "filelist/csv.h"
#include "main/main.h"
#include "mem/mem.h"
#include "ntfs/ntfs.h"
#include "os/os.h"
#include "sws/sws.h"

namespace {

enum step_t { STEP_INDEX, STEP_SEARCH, STEP_SORT, STEP_DONE };

struct run_t {
    sws_options_t *o;
    db_query_t *query;
    step_t step;
    int exit_code;
    bool load_only;       // the index is a file as it stands: no build, no save
    const char *db_label; // the file that load_only reads, for its error line
    bool built;           // a rebuild ran: the index came from its sources
    int sort;             // the sort number asked for, direction included
    uint64_t t_start, t_index, t_search, t_searched, t_sorted;
    os_thread_t *progress_thread;
    os_event_t *progress_stop;
    bool progress_shown;
};

run_t *the_run = nullptr;

uint64_t now_us() {
    return os_counter() * 1000000u / os_counter_frequency();
}

void error_line(const char *format, ...) {
    str_t line;
    str_init(&line);
    str_set(&line, "sws: ");
    va_list args;
    va_start(args, format);
    str_cat_vprintf(&line, format, args);
    va_end(args);
    debug_printf("%s\n", line.ptr);
    str_cat_char(&line, '\n');
    os_std_write(OS_STDERR, line.ptr, (size_t) line.len);
    str_kill(&line);
}

// ---- sources ---------------------------------------------------------------------------------------------

bool header_names_filename(csv_t *csv) {
    const char *field;
    int len;
    bool found = false;
    while ((field = csv_read_field(csv, &len)) != nullptr) {
        if (len == 8) {
            char lower[9];
            for (int i = 0; i < 8; i++)
                lower[i] = (char) (field[i] >= 'A' && field[i] <= 'Z' ? field[i] + 32 : field[i]);
            found |= memcmp(lower, "filename", 8) == 0;
        }
    }
    return found;
}

// A volume must open and hold an NTFS boot sector: the build would otherwise take it for an empty source.
static int check_volume(const char *path) {
    os_file_t h = os_open_volume(path, OS_VOLUME_READ, false);
    if (h == OS_FILE_INVALID) {
        str_t why;
        str_init(&why);
        os_error_text(os_last_error(), &why);
        error_line("%s: can't open the volume: %s", path, why.ptr ? why.ptr : "");
        str_kill(&why);
        return SWS_EXIT_SOURCE;
    }
    ntfs_boot_info_t info;
    bool ntfs = ntfs_read_boot_sector(h, &info);
    os_file_close(h);
    if (!ntfs) {
        error_line("%s: not an NTFS volume (no NTFS boot sector)", path);
        return SWS_EXIT_SOURCE;
    }
    return SWS_EXIT_OK;
}

// The root folder's name in the index for a volume: a drive ("C:", "\\.\C:") is named by its letter, as
// the program names it; an image or a block device by its path, so that its records read as inside it.
static void volume_root_name(const char *path, str_t *out) {
    size_t n = strlen(path);
    if (n >= 2 && path[n - 2] != ':' && (path[n - 1] == '/' || path[n - 1] == '\\'))
        n--;
    if (n >= 2 && path[n - 1] == ':' && (n == 2 || path[n - 3] == '\\'))
        str_set_n(out, path + n - 2, 2);
    else
        str_set_n(out, path, (int) n);
}

// Each source is checked before the build, which would otherwise take a source it can't read for an
// empty one and answer a search over nothing. Returns SWS_EXIT_OK or the status of the first failure.
int check_source(const sws_source_t *s) {
    switch (s->kind) {
    case SWS_SOURCE_FILELIST: {
        if (os_folder_exists(s->path)) {
            error_line("%s: is a folder, not a file list (use -folder for a folder)", s->path);
            return SWS_EXIT_SOURCE;
        }
        csv_t *csv = os_file_exists(s->path) ? csv_open(s->path) : nullptr;
        if (!csv) {
            error_line("%s: file list not found or not readable", s->path);
            return SWS_EXIT_SOURCE;
        }
        bool ok = header_names_filename(csv);
        csv_close(csv);
        if (!ok) {
            error_line("%s: not a file list: its first line names no Filename column", s->path);
            return SWS_EXIT_SOURCE;
        }
        return SWS_EXIT_OK;
    }
    case SWS_SOURCE_FOLDER:
        if (!os_folder_exists(s->path)) {
            error_line("%s: %s", s->path,
                       os_file_exists(s->path) ? "is a file, not a folder (use -filelist for a file list)"
                                               : "folder not found");
            return SWS_EXIT_SOURCE;
        }
        return SWS_EXIT_OK;
    case SWS_SOURCE_NTFS:
        return check_volume(s->path);
    }
    return SWS_EXIT_OK;
}

// The sources as the settings' lists: the command line's, or the default when it names none. Every list is
// written, so that sources of a -config file don't join; nothing is watched or rescanned, since the process
// ends after one search.
void apply_sources(const sws_source_t *sources, bool whole_system) {
    str_t text, filelists, folders;
    str_init(&text);
    str_init(&filelists);
    str_init(&folders);
    int filelist_count = 0, folder_count = 0;
    for (const sws_source_t *s = sources; s; s = s->next) {
        if (s->kind == SWS_SOURCE_NTFS)
            continue; // joins the volume list below
        bool list_source = s->kind == SWS_SOURCE_FILELIST;
        str_t *list = list_source ? &filelists : &folders;
        int *count = list_source ? &filelist_count : &folder_count;
        config_list_cat_item(list, s->path, *count == 0, false);
        (*count)++;
    }
    str_set(&text, "[Sablewatch]\n");
    str_cat_printf(&text, "filelists=%s\nfilelist_monitor_changes=", filelists.ptr ? filelists.ptr : "");
    for (int i = 0; i < filelist_count; i++)
        str_cat_z(&text, i ? ",0" : "0");
    str_cat_printf(&text, "\nfolders=%s\nfolder_monitor_changes=", folders.ptr ? folders.ptr : "");
    for (int i = 0; i < folder_count; i++)
        str_cat_z(&text, i ? ",0" : "0");
    str_cat_z(&text, "\nfolder_update_types=");
    for (int i = 0; i < folder_count; i++)
        str_cat_z(&text, i ? ",0" : "0");
    str_cat_z(&text, "\nntfs_volume_paths=\nrefs_volume_paths=\n");
    // The kernel's own trees under "/" name processes and devices, not files: thousands of entries that
    // change with every process and that nobody looks for by name. They join the settings' excludes.
    if (whole_system && OS_SEP == '/')
        str_cat_z(&text, "exclude_folders=/proc;/sys\n");
    ini_t *ini = ini_parse(text.ptr, "Sablewatch");
    config_load_ini(ini, false, false);
    ini_free(ini);
    // Volumes join the list the settings just emptied, as a user's own entries would.
    str_t name;
    str_init(&name);
    for (const sws_source_t *s = sources; s; s = s->next) {
        if (s->kind != SWS_SOURCE_NTFS)
            continue;
        volume_root_name(s->path, &name);
        db_ntfs_source_add(s->path, name.ptr ? name.ptr : "");
    }
    str_kill(&name);
    str_kill(&text);
    str_kill(&filelists);
    str_kill(&folders);
}

// The embedded default: the whole file system. On Linux the folder "/"; on Windows the fixed drives'
// folders until volume discovery names the volumes. Null when there is nothing to index.
sws_source_t *default_sources() {
    sws_source_t *first = nullptr, **tail = &first;
    uint32_t drives = os_fixed_drives();
    for (int i = 0; i < 26 && OS_SEP == '\\'; i++) {
        if (!(drives & (1u << i)))
            continue;
        char root[4] = {(char) ('A' + i), ':', '\\', 0};
        sws_source_t *s = (sws_source_t *) mem_alloc(sizeof *s);
        memset(s, 0, sizeof *s);
        s->kind = SWS_SOURCE_FOLDER;
        s->path = mem_dup(root, 3);
        *tail = s;
        tail = &s->next;
    }
    if (OS_SEP == '/') {
        sws_source_t *s = (sws_source_t *) mem_alloc(sizeof *s);
        memset(s, 0, sizeof *s);
        s->kind = SWS_SOURCE_FOLDER;
        s->path = mem_dup("/", 1);
        first = s;
    }
    return first;
}

// ---- the index -------------------------------------------------------------------------------------------

// The index's own start of a rebuild, wrapped so that the run knows whether its index came from the
// sources (and so must be saved in the default place) or from a file.
void (*rebuild_start)(db_t *db) = nullptr;

void rebuild_start_noted(db_t *db) {
    if (the_run)
        the_run->built = true;
    rebuild_start(db);
}

// ---- progress --------------------------------------------------------------------------------------------

// Items the folder scan has delivered so far, counted through a wrapper around the scan in use. The scan
// may deliver from several threads; the count is only ever read for display.
std::atomic<uint64_t> scanned_items{0};
db_folder_scan_t inner_scan = nullptr;

struct counting_ctx_t {
    db_scan_proc_t proc;
    void *ctx;
};

uintptr_t counting_proc(void *ctx, uintptr_t parent, bool folder, const char *name, uint32_t len,
                        const os_file_info_t *fd) {
    counting_ctx_t *c = (counting_ctx_t *) ctx;
    scanned_items.fetch_add(1, std::memory_order_relaxed);
    return c->proc(c->ctx, parent, folder, name, len, fd);
}

bool counting_scan(const char *path, const db_exclude_t *exclude, db_scan_proc_t proc, void *ctx) {
    counting_ctx_t c = {proc, ctx};
    return inner_scan(path, exclude, counting_proc, &c);
}

void progress_proc(void *ctx) {
    run_t *r = (run_t *) ctx;
    if (!db || r->step != STEP_INDEX)
        return;
    str_t status, line;
    str_init(&status);
    str_init(&line);
    db_get_status(db, &status);
    uint64_t seconds = (now_us() - r->t_start) / 1000000u;
    str_printf(&line, "\r\x1b[K%s", status.len ? status.ptr : "Working...");
    uint64_t items = scanned_items.load(std::memory_order_relaxed);
    if (items)
        str_cat_printf(&line, " %I64u items", items);
    str_cat_printf(&line, " %I64u s", seconds);
    os_std_write(OS_STDERR, line.ptr, (size_t) line.len);
    r->progress_shown = true;
    str_kill(&status);
    str_kill(&line);
}

void progress_thread_proc(void *arg) {
    run_t *r = (run_t *) arg;
    while (!os_event_wait(r->progress_stop, 250))
        event_post(progress_proc, r);
}

void progress_start(run_t *r) {
    if (!os_std_is_terminal(OS_STDERR))
        return;
    r->progress_stop = os_event_create(false);
    r->progress_thread = os_thread_create(progress_thread_proc, r);
    inner_scan = db_folder_scan;
    db_folder_scan = counting_scan;
}

void progress_stop(run_t *r) {
    if (!r->progress_thread)
        return;
    os_event_set(r->progress_stop);
    os_thread_destroy(r->progress_thread);
    os_event_destroy(r->progress_stop);
    r->progress_thread = nullptr;
    // The scan's wrapper stays until the process ends: a build still under way (after an interrupt) may be
    // in it now.
    event_remove(progress_proc, r);
    if (r->progress_shown)
        os_std_write(OS_STDERR, "\r\x1b[K", 4);
}

// ---- the search and its output ----------------------------------------------------------------------------

int match_flag(int option, uint8_t setting) {
    return option == SWS_UNSET ? setting != 0 : option;
}

void start_search(run_t *r) {
    const sws_options_t *o = r->o;
    // A column with a sorted array gives its order for free in the scan; any other is sorted after it,
    // so that the two costs are measured apart.
    int ascending = r->sort & ~1;
    bool scan_sorts = db_sort_array(db, ascending, true) && db_sort_array(db, ascending, false);
    r->step = scan_sorts ? STEP_SORT : STEP_SEARCH;
    r->t_search = now_us();
    db_query_search(r->query, match_flag(o->match_case, match_case),
                    match_flag(o->match_whole_word, match_whole_word), match_flag(o->match_path, match_path),
                    match_flag(o->match_diacritics, match_diacritics),
                    match_flag(o->match_regex, match_regex), false, true, o->search, 0, "",
                    scan_sorts ? r->sort : DB_SORT_NAME, 0, 0, o->total_size);
}

void fill_row(sws_row_t *row, db_ref_t record, bool folder, str_t *full_path) {
    db_get_full_path(full_path, record);
    row->full_path = full_path->ptr;
    row->full_path_len = (uint32_t) full_path->len;
    row->name = db_record_name(record, &row->name_len);
    row->folder = folder;
    // The folder is the full path less the name and the separator in front of it; a root has none.
    uint32_t cut = row->name_len < row->full_path_len ? row->name_len + 1 : row->full_path_len;
    row->path = full_path->ptr;
    row->path_len = db_record_parent(record) ? row->full_path_len - cut : 0;
    uint64_t (*get)(const db_t *, db_ref_t, db_field_t) = folder ? db_folder_get : db_file_get;
    row->size = get(db, record, DB_FIELD_SIZE);
    row->date_modified = get(db, record, DB_FIELD_DATE_MODIFIED);
    row->date_created = get(db, record, DB_FIELD_DATE_CREATED);
    row->date_accessed = get(db, record, DB_FIELD_DATE_ACCESSED);
    row->attributes = (uint32_t) get(db, record, DB_FIELD_ATTRIBUTES);
    if (folder)
        row->attributes |= OS_ATTR_DIRECTORY;
}

void write_results(run_t *r) {
    const sws_options_t *o = r->o;
    sws_out_t w;
    sws_out_init(&w, true);
    if (o->count) {
        str_printf(&w.buffer, "%d\n", db_get_result_count(r->query));
    } else if (o->total_size) {
        uint64_t total = db_query_get_total_result_size(r->query);
        if (total == DB_UNKNOWN)
            error_line("-get-total-size: the index holds no file sizes (index_size is off)");
        else
            str_printf(&w.buffer, "%I64u\n", total);
    } else {
        uint64_t count = (uint64_t) db_get_result_count(r->query);
        uint64_t first = o->offset < count ? o->offset : count;
        uint64_t end = count - first > o->max_results ? first + o->max_results : count;
        str_t path;
        str_init(&path);
        sws_write_begin(&w, o->format, o->columns);
        for (uint64_t i = first; i < end && !w.failed; i++) {
            db_ref_t record;
            bool folder;
            if (!_db_result_at(r->query, (int) i, &record, &folder))
                break;
            sws_row_t row;
            fill_row(&row, record, folder, &path);
            sws_write_row(&w, o->format, o->columns, &row, i == first);
        }
        sws_write_end(&w, o->format);
        str_kill(&path);
    }
    sws_out_flush(&w);
    if (w.skipped)
        error_line("%u names holding a line end were left out of the file list, which can't hold them",
                   w.skipped);
    sws_out_kill(&w);
}

void write_stats(const run_t *r) {
    str_t s;
    str_init(&s);
    str_printf(&s, "%s: %I64u ms\n", r->built ? "build" : "load", (r->t_index - r->t_start) / 1000u);
    str_cat_printf(&s, "records: %u folders, %u files\n", db->folders.count, db->files.count);
    str_cat_printf(&s, "search: %I64u ms\n", (r->t_searched - r->t_search) / 1000u);
    str_cat_printf(&s, "sort: %I64u ms\n", (r->t_sorted - r->t_searched) / 1000u);
    str_cat_printf(&s, "results: %d\n", db_get_result_count(r->query));
    str_cat_printf(&s, "peak memory: %I64u MiB\n", os_peak_memory() >> 20);
    os_std_write(OS_STDERR, s.ptr, (size_t) s.len);
    str_kill(&s);
}

void finish(run_t *r, int code) {
    r->step = STEP_DONE;
    r->exit_code = code;
    main_quit(code);
}

// The run's steps, each begun by the query's ready code once no job holds the index: the index is in
// place, the search has ended, the sort has ended.
void query_proc(void *user, int code, db_query_t *q) {
    run_t *r = (run_t *) user;
    if (code != DB_QUERY_READY || q->pending.active || q->pending_sort.active || db->job_thread)
        return;
    switch (r->step) {
    case STEP_INDEX:
        r->t_index = now_us();
        progress_stop(r);
        if (r->load_only && !db->has_content) {
            error_line("%s: not a valid database file (damaged, cut short, or not this program's)",
                       r->db_label);
            finish(r, SWS_EXIT_DATABASE);
            return;
        }
        start_search(r);
        return;
    case STEP_SEARCH:
        r->t_searched = now_us();
        r->step = STEP_SORT;
        db_sort(q, r->sort, 0, 0);
        return;
    case STEP_SORT:
        r->t_sorted = now_us();
        if (r->t_searched == 0)
            r->t_searched = r->t_sorted;
        write_results(r);
        if (r->o->stats)
            write_stats(r);
        finish(r, SWS_EXIT_OK);
        return;
    case STEP_DONE:
        return;
    }
}

// -save-db: the index as it stands, written beside and renamed over the target like every save.
int save_copy(const char *path) {
    str_t temporary;
    str_init(&temporary);
    str_printf(&temporary, "%s.tmp", path);
    db_wait(db, "sws -save-db");
    bool ok = db_file_save(db, path, temporary.ptr, db_compress != 0);
    str_kill(&temporary);
    if (!ok) {
        error_line("%s: the database file could not be written", path);
        return SWS_EXIT_SOURCE;
    }
    return SWS_EXIT_OK;
}

// Chooses where the index comes from and sets the switches of the index file accordingly. Returns
// SWS_EXIT_OK or the status of the failure it reported.
int choose_index(run_t *r, str_t *db_path) {
    sws_options_t *o = r->o;
    if (o->db) {
        if (os_folder_exists(o->db) || !os_file_exists(o->db)) {
            error_line("%s: %s", o->db,
                       os_folder_exists(o->db) ? "is a folder, not a database file"
                                               : "database file not found");
            return SWS_EXIT_SOURCE;
        }
        str_set(db_path, o->db);
        r->load_only = true;
    } else if (o->sources) {
        for (const sws_source_t *s = o->sources; s; s = s->next) {
            int status = check_source(s);
            if (status != SWS_EXIT_OK)
                return status;
        }
        apply_sources(o->sources, false);
        // Built from its sources for this one run: no file is read or written (but -save-db's).
        no_db = true;
    } else {
        // The program's own index file: searched as it stands when it exists, else built from the default
        // sources and saved there at the end, so that the next run only loads it.
        db_file_set_command_line(nullptr, main_instance(), false, false);
        db_file_name(db_path, false, db_multi_user_filename != 0);
        if (os_file_exists(db_path->ptr)) {
            r->load_only = true;
        } else {
            sws_source_t *defaults = default_sources();
            if (!defaults) {
                error_line("no fixed drive to index");
                return SWS_EXIT_SOURCE;
            }
            apply_sources(defaults, true);
            for (sws_source_t *s = defaults; s;) {
                sws_source_t *next = s->next;
                mem_free(s->path);
                mem_free(s);
                s = next;
            }
        }
        str_clear(db_path);
    }
    // A file that is the index as it stands is never rebuilt from settings that don't describe it, and
    // never written back.
    read_only = r->load_only;
    return SWS_EXIT_OK;
}

int settings(const sws_options_t *o) {
    if (o->config) {
        if (!os_file_exists(o->config) || os_folder_exists(o->config)) {
            error_line("%s: settings file not found", o->config);
            return SWS_EXIT_SOURCE;
        }
        config_load(o->config, false, false);
    }
    // One search and the process ends: nothing to watch, and no schedule to keep.
    monitor_pause = 1;
    return SWS_EXIT_OK;
}

int run(sws_options_t *o) {
    run_t r;
    memset(&r, 0, sizeof r);
    r.o = o;
    r.sort = o->sort | (o->sort_dir < 0 ? 1 : 0);
    r.t_start = now_us();
    int status = settings(o);
    str_t db_path;
    str_init(&db_path);
    if (status == SWS_EXIT_OK)
        status = choose_index(&r, &db_path);
    r.db_label = o->db;
    str_t own_name;
    str_init(&own_name);
    if (status == SWS_EXIT_OK && r.load_only && !o->db) {
        db_file_name(&own_name, false, db_multi_user_filename != 0);
        r.db_label = own_name.ptr;
    }
    // The loop takes a name of its own and no hand-over endpoint: a running instance keeps its own, and no
    // socket file of sws appears in the file system it may be indexing.
    str_t loop_name;
    str_init(&loop_name);
    str_printf(&loop_name, "sws %u %u", os_thread_id(), os_tick_ms());
    if (status == SWS_EXIT_OK && !main_loop_init_private(loop_name.ptr)) {
        error_line("the main loop could not be made (event channel)");
        status = SWS_EXIT_SOURCE;
    }
    if (status == SWS_EXIT_OK) {
        the_run = &r;
        rebuild_start = db_file_rebuild_ops.start;
        db_file_rebuild_ops.start = rebuild_start_noted;
        progress_start(&r);
        main_db_load_file(db_path.len ? db_path.ptr : nullptr);
        r.query = db_query_create(db, false, query_proc, &r);
        main_loop_run();
        progress_stop(&r);
        status = r.step == STEP_DONE ? r.exit_code : SWS_EXIT_INTERRUPTED;
        if (status == SWS_EXIT_INTERRUPTED)
            error_line("interrupted");
        if (status == SWS_EXIT_OK && o->save_db)
            status = save_copy(o->save_db);
        db_destroy_query(r.query);
        uint64_t t_save = now_us();
        // The shutdown's save writes the default index that this run built; a loaded file or a build for
        // one run is not written (read_only, no_db).
        if (status != SWS_EXIT_OK)
            read_only = true, db_file_set_command_line(nullptr, main_instance(), no_db, true);
        bool saves = !read_only && !no_db && r.built;
        main_db_kill();
        if (saves && o->stats) {
            str_t line;
            str_init(&line);
            str_printf(&line, "save: %I64u ms\n", (now_us() - t_save) / 1000u);
            os_std_write(OS_STDERR, line.ptr, (size_t) line.len);
            str_kill(&line);
        }
        db_file_rebuild_ops.start = rebuild_start;
        the_run = nullptr;
        main_loop_kill();
    }
    str_kill(&loop_name);
    str_kill(&own_name);
    str_kill(&db_path);
    return status;
}

} // namespace

int sws_main() {
    debug_init();
    os_init();
    event_init();
    config_defaults();
    str_t line, cwd, error;
    str_init(&line);
    str_init(&cwd);
    str_init(&error);
    os_command_line(&line);
    os_current_folder(&cwd);
    sws_options_t o;
    int status = SWS_EXIT_OK;
    if (!sws_parse(&o, line.ptr ? line.ptr : "", cwd.ptr ? cwd.ptr : "", &error)) {
        error_line("%s", error.ptr ? error.ptr : "bad arguments");
        status = SWS_EXIT_USAGE;
    } else if (o.help) {
        os_std_write(OS_STDOUT, sws_usage, strlen(sws_usage));
    } else {
        status = run(&o);
    }
    sws_options_kill(&o);
    str_kill(&error);
    str_kill(&cwd);
    str_kill(&line);
    event_kill();
    config_kill();
    os_kill();
    debug_kill();
    return status;
}
