// The database file: the whole index written to one flat stream and read back, so that a restart costs
// seconds instead of a re-read of every volume.
//
// Invariants:
// - The file is read and written front to back, once, through a stream with a 65,536-byte buffer,
//   optionally bzip2-compressed (block size 9). The file carries no sign of its compression: the setting
//   db_compress decides for reading as for writing, so a change of it makes the next load fail on the magic.
// - All numbers are little-endian and unaligned. A `len` is one byte 0..254, or 255 and a 32-bit value. A
//   string is a `len` and that many bytes of UTF-8 without a terminator.
// - Record references become indexes on writing (folders and files by their position in `folders` and
//   `files`; a parent at or above the folder count F is F + the index of the source whose root it is) and
//   references again on reading. Names are delta-coded against the previous name of the same kind.
// - A stream's error flag is sticky: after an error or the end of the data every read gives zeros, every
//   write does nothing, and the reader checks the flag once at the end. Truncated or damaged input can
//   make a load fail but never crash it or allocate more than the data it actually holds justifies.
// - A load that fails at any point leaves an empty index (no sources, no records, no arrays).
// - The save rewrites every folder's `parent` field with the folder's own index while it writes, and puts
//   them back before it returns; it needs exclusive use of the index (main thread, after db_wait).
#pragma once

#include <bzlib.h>
#include <cstddef>
#include <cstdint>

#include "db/db.h"
#include "os/os.h"

struct str_t;
struct config_frozen_t;

#define DB_FILE_MAGIC    0x62445753u // "SWDb"
#define DB_FILE_VERSION  0x01070014u
#define DB_STREAM_BUFFER 65536u

// ---- the stream ----------------------------------------------------------------------------------------

// A sequential stream over an open file, or over a block of memory for reading. The stream neither opens
// nor closes the file.
struct os_file_stream_t {
    os_file_t file;     // OS_FILE_INVALID when reading from memory
    const uint8_t *mem; // memory source: next unread byte
    size_t mem_left;    // memory source: bytes not yet read
    uint8_t *buffer;    // DB_STREAM_BUFFER bytes of plain data
    uint32_t pos;       // read: next byte in buffer; write: bytes in buffer
    uint32_t left;      // read: bytes of buffer not yet read
    uint8_t *zbuffer;   // compressed side (input when reading, output when writing); null when plain
    bz_stream bz;
    bool bz_active; // bz holds a live compressor or decompressor
    bool writing;
    bool input_done; // the file or memory gave its last byte
    bool stream_end; // the decompressor saw the end of the compressed stream
    bool error;      // sticky: some read or write failed or ran past the end
    bool plain;      // not compressed
};

// Starts reading from f (compressed: through the decompressor, with small mode off). False, with error
// set, only when the decompressor can't start; the stream must still be killed.
bool os_stream_init_read(os_file_stream_t *s, os_file_t f, bool compressed);
// The same over size bytes at data, which the caller keeps alive until os_stream_kill.
bool os_stream_init_memory(os_file_stream_t *s, const void *data, size_t size, bool compressed);
// Starts writing to f (compressed: block size 9, normal work factor).
bool os_stream_init_write(os_file_stream_t *s, os_file_t f, bool compressed);
// Frees the buffers and the (de)compressor. Does not flush and does not close the file.
void os_stream_kill(os_file_stream_t *s);

// Reads n bytes into out. After an error or past the end of the data, fills out with zeros and sets
// error; returns nothing so that a reader can run to its end and check error once.
void os_read(os_file_stream_t *s, void *out, size_t n);
// Reads on to the end of a compressed stream, so that its checksums are verified; plain streams have
// none. Returns !error.
bool os_stream_read_finish(os_file_stream_t *s);
// Writes n bytes, writing the buffer out whenever it is full. Does nothing once error is set.
void os_write(os_file_stream_t *s, const void *in, size_t n);
// Writes everything still buffered (compressed: finishes the compressed stream first). Returns !error.
bool os_stream_flush(os_file_stream_t *s);

void os_stream_write_u8(os_file_stream_t *s, uint8_t v);
void os_stream_write_u32(os_file_stream_t *s, uint32_t v);
void os_stream_write_u64(os_file_stream_t *s, uint64_t v);
// The short form for values below 255, else 255 and the 32-bit value.
void os_stream_write_len(os_file_stream_t *s, uint32_t v);
// A `len` and the bytes; null counts as empty.
void os_stream_write_string(os_file_stream_t *s, const char *text, uint32_t n);

uint8_t os_stream_read_u8(os_file_stream_t *s);
uint32_t os_stream_read_u32(os_file_stream_t *s);
uint64_t os_stream_read_u64(os_file_stream_t *s);
uint32_t os_stream_read_len(os_file_stream_t *s);
// Reads a string into out (replacing its text). A length of all one bits, or one that the data can't
// hold, sets error and leaves out empty (every later read then gives zeros anyway). Memory grows with the
// bytes actually read, in steps of 65,536, never with the stored length alone.
void os_stream_read_string(os_file_stream_t *s, str_t *out);
// The same, treating a length above max as damaged (error set, out empty).
void os_stream_read_string_max(os_file_stream_t *s, str_t *out, uint32_t max);

// ---- the file name -------------------------------------------------------------------------------------

// What the command line says about the database file. The index library sits below the start-up, so the
// start-up hands these over before the first db_load: the -db switch (null or "" when not given), the
// instance in force (null or "" for none), -no-db and -read-only. Texts are copied.
void db_file_set_command_line(const char *db_switch, const char *instance, bool no_db, bool read_only);

// What a load does about a rebuild: whether the loaded index must be rebuilt (by default: it holds nothing,
// or the settings no longer describe it), and how one starts (by default db_rebuild). Tests of the file
// alone replace both; a test keeps the defaults and puts them back.
struct db_file_rebuild_ops_t {
    bool (*required)(db_t *db);
    void (*start)(db_t *db);
};
extern db_file_rebuild_ops_t db_file_rebuild_ops;
bool db_file_no_db();
bool db_file_read_only();

// The database file's full name: the -db switch as it stands (for the temporary name too); else
// "Sablewatch" (or "Sablewatch.<computer>.<user>" with multi_user), the instance form "-<escaped
// instance>", ".db" or ".db.tmp", in the folder db_location resolved against the base folder (with the
// setting app_data the per-user local application data folder's "Sablewatch", else the executable's
// folder).
void db_file_name(str_t *out, bool temporary, bool multi_user);

// ---- writing -------------------------------------------------------------------------------------------

// The sorted arrays beyond name order that the structure word puts in the file, in file order: for
// folders path, size (only with both 0x0100 and 0x0020), date created, date modified, date accessed,
// attributes; for files the same with size on 0x0100 alone, then extension. out must hold 8. Returns the
// count.
int db_file_arrays(db_t *db, bool folder, mem_array_t **out);

// Writes the whole index in the file's layout to the stream. The index must be idle (db_wait done). The
// folders' parent fields are borrowed during the call and restored before it returns. False when the
// index's arrays don't agree with its counts (nothing sensible can be written) or the stream failed.
bool db_file_write(db_t *db, os_file_stream_t *s);

// Writes the index to temporary (created with its folders), then renames it over final. With equal
// names the file is written in place. Logs "failed to save %s %d" on any failure; the old final file then
// stays as it was. Returns true when the new file is in place.
bool db_file_save(db_t *db, const char *final_name, const char *temporary, bool compressed);

// db_save(db, force): stores the index at its file name unless -no-db or -read-only. With force and an
// index without content, a rebuild is started instead. Main thread.
void db_save(db_t *db, bool force);

// ---- reading -------------------------------------------------------------------------------------------

// What a load compares the stored sources with: the settings' volume, file list and folder lists, and
// whether folder schedules are recomputed. All may be absent (null), in which case every source misses
// and takes the defaults.
struct db_load_settings_t {
    const config_frozen_t *config; // null: no settings to match
    bool read_only;                // no watchers, no schedule recomputation side effects
};

// Reads a whole database stream into db, which must be empty (fresh from db_create, or cleared). Every
// validation of the layout is made here; each failure logs its line. Returns true when the body was
// read and checked; the caller still checks s->error. On false the index holds partial data that
// db_file_clear removes.
bool db_file_read(db_t *db, os_file_stream_t *s, const db_load_settings_t *settings);

// Opens path and reads it through db_file_read; on any failure the index is cleared. A missing file is
// a failed load too (the normal first start). Returns true on success. Runs on whichever thread calls it.
bool db_file_load(db_t *db, const char *path, bool compressed, const db_load_settings_t *settings);

// The same over a block of memory (tests and fuzzing).
bool db_file_load_memory(db_t *db, const void *data, size_t size, bool compressed,
                         const db_load_settings_t *settings);

// Empties the index as a failed load or a rebuild does: arrays, pool, sources, excludes; is_loaded and
// has_content cleared.
void db_file_clear(db_t *db);

// db_load(db, flags): a private index over one list (remote_name) starts its rebuild, which reads the
// list; with -no-db logs "no db file" and starts a rebuild; otherwise starts the load job
// and returns at once. The job ends with _db_load_complete_proc and then _db_ready_proc on the main
// thread. flags is reserved (0).
void db_load(db_t *db, uint32_t flags);

// Posted by the load job: marks the index loaded, clears the status and starts a rebuild when the load
// left nothing to serve. ctx is the db_t; db_destroy removes a pending one.
void _db_load_complete_proc(void *ctx);
