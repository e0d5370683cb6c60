// The sequential stream below the database file: a 65,536-byte buffer over a file or a memory block,
// optionally through bzip2.
//
// Reading never fails loudly: after an error or past the end every read gives zeros and the sticky error
// flag says so, so that the reader of the file can run to its end and check once.
#include <cstring>

#include "db/dbfile.h"
#include "debug/debug.h"
#include "mem/mem.h"

// bzip2's allocations go through the program's heap. A refusal comes back as BZ_MEM_ERROR, which the
// stream reports as a failure rather than ending the process.
static void *_bz_alloc(void *, int items, int size) {
    return mem_try_alloc((size_t) items * (size_t) size);
}

static void _bz_free(void *, void *p) {
    mem_free(p);
}

static void _init(os_file_stream_t *s, os_file_t f, bool compressed, bool writing) {
    memset(s, 0, sizeof(*s));
    s->file = f;
    s->writing = writing;
    s->plain = !compressed;
    s->buffer = (uint8_t *) mem_alloc(DB_STREAM_BUFFER);
    if (compressed) {
        s->zbuffer = (uint8_t *) mem_alloc(DB_STREAM_BUFFER);
        s->bz.bzalloc = _bz_alloc;
        s->bz.bzfree = _bz_free;
    }
}

bool os_stream_init_read(os_file_stream_t *s, os_file_t f, bool compressed) {
    _init(s, f, compressed, false);
    if (compressed) {
        int r = BZ2_bzDecompressInit(&s->bz, 0, 0);
        if (r != BZ_OK) {
            debug_printf("BZ2_bzDecompressInit(): %d: Failed to initialise.\n", r);
            s->error = true;
            return false;
        }
        s->bz_active = true;
    }
    return true;
}

bool os_stream_init_memory(os_file_stream_t *s, const void *data, size_t size, bool compressed) {
    bool ok = os_stream_init_read(s, OS_FILE_INVALID, compressed);
    s->mem = (const uint8_t *) data;
    s->mem_left = size;
    return ok;
}

bool os_stream_init_write(os_file_stream_t *s, os_file_t f, bool compressed) {
    _init(s, f, compressed, true);
    if (compressed) {
        int r = BZ2_bzCompressInit(&s->bz, 9, 0, 0);
        if (r != BZ_OK) {
            debug_printf("BZ2_bzCompressInit(): %d: Failed to initialise.\n", r);
            s->error = true;
            return false;
        }
        s->bz_active = true;
        s->bz.next_out = (char *) s->zbuffer;
        s->bz.avail_out = DB_STREAM_BUFFER;
    }
    return true;
}

void os_stream_kill(os_file_stream_t *s) {
    if (s->bz_active) {
        if (s->writing)
            BZ2_bzCompressEnd(&s->bz);
        else
            BZ2_bzDecompressEnd(&s->bz);
        s->bz_active = false;
    }
    mem_free(s->buffer);
    mem_free(s->zbuffer);
    s->buffer = s->zbuffer = nullptr;
}

// ---- reading -------------------------------------------------------------------------------------------

// Up to cap raw bytes from the file or the memory block: the count, 0 at the end, -1 on an error.
static int64_t _source_read(os_file_stream_t *s, uint8_t *out, uint32_t cap) {
    if (s->file == OS_FILE_INVALID) {
        size_t n = s->mem_left < cap ? s->mem_left : cap;
        if (n)
            memcpy(out, s->mem, n);
        s->mem += n;
        s->mem_left -= n;
        return (int64_t) n;
    }
    int64_t n = os_file_read(s->file, out, cap);
    if (n < 0) {
        debug_printf("ReadFile(): %d: Failed to read.\n", (int) os_last_error());
        s->error = true;
    }
    return n;
}

// Refills the plain buffer straight from the source.
static bool _fill_plain(os_file_stream_t *s) {
    if (s->input_done)
        return false;
    int64_t n = _source_read(s, s->buffer, DB_STREAM_BUFFER);
    if (n <= 0) {
        s->input_done = true;
        return false;
    }
    s->pos = 0;
    s->left = (uint32_t) n;
    return true;
}

// Refills the plain buffer by decompressing, reading compressed input as the decompressor needs it.
static bool _fill_compressed(os_file_stream_t *s) {
    if (s->stream_end || !s->bz_active)
        return false;
    s->bz.next_out = (char *) s->buffer;
    s->bz.avail_out = DB_STREAM_BUFFER;
    while (s->bz.avail_out == DB_STREAM_BUFFER) {
        if (s->bz.avail_in == 0 && !s->input_done) {
            int64_t n = _source_read(s, s->zbuffer, DB_STREAM_BUFFER);
            if (n < 0)
                return false;
            if (n == 0)
                s->input_done = true;
            s->bz.next_in = (char *) s->zbuffer;
            s->bz.avail_in = (unsigned) n;
        }
        int r = BZ2_bzDecompress(&s->bz);
        if (r == BZ_STREAM_END) {
            s->stream_end = true;
            break;
        }
        if (r != BZ_OK) {
            debug_printf("BZ2_bzDecompress(): %d: Failed to decompress.\n", r);
            s->error = true;
            return false;
        }
        // No output and no input left to give: the compressed data stops before its end.
        if (s->input_done && s->bz.avail_in == 0 && s->bz.avail_out == DB_STREAM_BUFFER) {
            debug_printf("BZ2_bzDecompress(): %d: Unexpected EOF in decompression stream.\n",
                         BZ_UNEXPECTED_EOF);
            s->error = true;
            return false;
        }
    }
    s->pos = 0;
    s->left = DB_STREAM_BUFFER - s->bz.avail_out;
    return s->left > 0;
}

void os_read(os_file_stream_t *s, void *out, size_t n) {
    uint8_t *dst = (uint8_t *) out;
    // Most reads are a few bytes that the buffer already holds.
    if (n <= s->left) {
        memcpy(dst, s->buffer + s->pos, n);
        s->pos += (uint32_t) n;
        s->left -= (uint32_t) n;
        return;
    }
    while (n) {
        if (s->left == 0) {
            bool more = !s->error && (s->plain ? _fill_plain(s) : _fill_compressed(s));
            if (!more) {
                // Past the end is an error too: a reader that asks for more than the data holds has read a
                // truncated or damaged file.
                if (!s->error)
                    debug_printf("os_read(): unexpected end of data, %d bytes missing\n", (int) n);
                s->error = true;
                memset(dst, 0, n);
                return;
            }
        }
        uint32_t take = s->left < n ? s->left : (uint32_t) n;
        memcpy(dst, s->buffer + s->pos, take);
        s->pos += take;
        s->left -= take;
        dst += take;
        n -= take;
    }
}

bool os_stream_read_finish(os_file_stream_t *s) {
    // bzip2 checks a block's CRC only after the block's last byte has been delivered, and the stream's
    // CRC at its very end: a reader that stops where its data stops would never see either.
    while (!s->plain && !s->error && !s->stream_end) {
        s->left = 0;
        if (!_fill_compressed(s) && !s->stream_end && !s->error) {
            debug_printf("BZ2_bzDecompress(): %d: Unexpected EOF in decompression stream.\n",
                         BZ_UNEXPECTED_EOF);
            s->error = true;
        }
    }
    return !s->error;
}

uint8_t os_stream_read_u8(os_file_stream_t *s) {
    if (s->left) {
        s->left--;
        return s->buffer[s->pos++];
    }
    uint8_t v;
    os_read(s, &v, 1);
    return v;
}

uint32_t os_stream_read_u32(os_file_stream_t *s) {
    uint8_t b[4];
    if (s->left >= 4) {
        memcpy(b, s->buffer + s->pos, 4);
        s->pos += 4;
        s->left -= 4;
    } else {
        os_read(s, b, 4);
    }
    return (uint32_t) b[0] | (uint32_t) b[1] << 8 | (uint32_t) b[2] << 16 | (uint32_t) b[3] << 24;
}

uint64_t os_stream_read_u64(os_file_stream_t *s) {
    uint64_t lo = os_stream_read_u32(s);
    uint64_t hi = os_stream_read_u32(s);
    return lo | hi << 32;
}

uint32_t os_stream_read_len(os_file_stream_t *s) {
    uint8_t b = os_stream_read_u8(s);
    return b < 255 ? b : os_stream_read_u32(s);
}

void os_stream_read_string_max(os_file_stream_t *s, str_t *out, uint32_t max) {
    str_clear(out);
    uint32_t n = os_stream_read_len(s);
    if (n == 0xFFFFFFFFu || n > max) {
        // A damaged length. Once the flag is set every later read gives zeros, so there is nothing to
        // gain from reading past the bytes it claims: the load fails either way.
        if (!s->error)
            debug_printf("invalid string length %u\n", n);
        s->error = true;
        return;
    }
    // The text grows with the bytes that really arrive, so a hostile length costs at most one step more
    // than the data behind it.
    uint32_t done = 0;
    while (done < n && !s->error) {
        uint32_t step = n - done < DB_STREAM_BUFFER ? n - done : DB_STREAM_BUFFER;
        str_reserve(out, (int) (done + step + 1));
        os_read(s, out->ptr + done, step);
        done += step;
    }
    if (s->error) {
        str_clear(out);
        return;
    }
    out->len = (int32_t) n;
    out->ptr[n] = 0;
}

void os_stream_read_string(os_file_stream_t *s, str_t *out) {
    os_stream_read_string_max(s, out, 0x7FFFFFFEu);
}

// ---- writing -------------------------------------------------------------------------------------------

static void _sink_write(os_file_stream_t *s, const uint8_t *data, uint32_t n) {
    if (s->error || n == 0)
        return;
    int64_t done = os_file_write(s->file, data, n);
    if (done != (int64_t) n) {
        debug_printf("os_write(): %d: Failed to write %d bytes\n", (int) os_last_error(), (int) n);
        s->error = true;
    }
}

// Runs the compressor over the plain buffer (and, with finish, to the end of the stream), writing each
// full block of compressed output.
static void _compress(os_file_stream_t *s, bool finish) {
    s->bz.next_in = (char *) s->buffer;
    s->bz.avail_in = s->pos;
    for (;;) {
        if (s->bz.avail_out == 0) {
            _sink_write(s, s->zbuffer, DB_STREAM_BUFFER);
            s->bz.next_out = (char *) s->zbuffer;
            s->bz.avail_out = DB_STREAM_BUFFER;
        }
        if (s->error)
            return;
        if (!finish && s->bz.avail_in == 0)
            break;
        int r = BZ2_bzCompress(&s->bz, finish ? BZ_FINISH : BZ_RUN);
        if (finish && r == BZ_STREAM_END)
            break;
        if (r != (finish ? BZ_FINISH_OK : BZ_RUN_OK)) {
            if (finish)
                debug_printf("BZ2_bzCompress(): %d: Failed to finish compressing\n", r);
            else
                debug_printf("BZ2_bzCompress(): %d: Failed to compress\n", r);
            s->error = true;
            return;
        }
    }
    s->pos = 0;
}

static void _flush_buffer(os_file_stream_t *s) {
    if (s->plain) {
        _sink_write(s, s->buffer, s->pos);
        s->pos = 0;
    } else {
        _compress(s, false);
    }
}

void os_write(os_file_stream_t *s, const void *in, size_t n) {
    const uint8_t *src = (const uint8_t *) in;
    while (n && !s->error) {
        uint32_t room = DB_STREAM_BUFFER - s->pos;
        uint32_t take = room < n ? room : (uint32_t) n;
        memcpy(s->buffer + s->pos, src, take);
        s->pos += take;
        src += take;
        n -= take;
        if (s->pos == DB_STREAM_BUFFER)
            _flush_buffer(s);
    }
}

bool os_stream_flush(os_file_stream_t *s) {
    if (s->error)
        return false;
    if (s->plain) {
        _flush_buffer(s);
    } else if (s->bz_active) {
        _compress(s, true);
        _sink_write(s, s->zbuffer, DB_STREAM_BUFFER - s->bz.avail_out);
        s->bz.next_out = (char *) s->zbuffer;
        s->bz.avail_out = DB_STREAM_BUFFER;
    }
    return !s->error;
}

void os_stream_write_u8(os_file_stream_t *s, uint8_t v) {
    os_write(s, &v, 1);
}

void os_stream_write_u32(os_file_stream_t *s, uint32_t v) {
    uint8_t b[4] = {(uint8_t) v, (uint8_t) (v >> 8), (uint8_t) (v >> 16), (uint8_t) (v >> 24)};
    os_write(s, b, 4);
}

void os_stream_write_u64(os_file_stream_t *s, uint64_t v) {
    os_stream_write_u32(s, (uint32_t) v);
    os_stream_write_u32(s, (uint32_t) (v >> 32));
}

void os_stream_write_len(os_file_stream_t *s, uint32_t v) {
    if (v < 255) {
        os_stream_write_u8(s, (uint8_t) v);
    } else {
        os_stream_write_u8(s, 255);
        os_stream_write_u32(s, v);
    }
}

void os_stream_write_string(os_file_stream_t *s, const char *text, uint32_t n) {
    os_stream_write_len(s, text ? n : 0);
    if (text && n)
        os_write(s, text, n);
}
