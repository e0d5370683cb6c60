// The NTFS volume reader: turns a raw NTFS volume (a device, or a plain file holding an image of one) into
// a stream of file and folder records by reading the file table $MFT in one ordered pass, without the
// file system's directory calls.
//
// Invariants:
// - Every byte read from the volume is untrusted: each field is bounds-checked against the record or the
//   attribute that holds it before it is read, so no damaged volume can make the reader read outside its
//   buffers. A record that fails a check is skipped; a run list that can't be decoded, or a read that
//   fails, ends the reading of the table, and what was collected is still delivered.
// - The pass reads $MFT in disk order in reads of 65,536 bytes (raised to the cluster or record size),
//   never seeking back. Names are delivered in place from the read buffer; only records that have an
//   attribute list (and their extension records) are copied, to be joined and delivered after the pass.
// - Exhausted memory is fatal; nothing else is.
#pragma once

#include <cstdint>

#include "os/os.h"

// What the boot sector says about the volume.
struct ntfs_boot_info_t {
    uint64_t mft_lcn;       // cluster where $MFT begins
    uint64_t serial_number; // boot sector offset 72
    uint32_t bytes_per_cluster;
    uint32_t bytes_per_file_record;
    uint32_t bytes_per_sector;
};

// One name of one file, valid during the callback only.
struct ntfs_file_record_t {
    uint64_t frn;           // record number in the low 48 bits, the record's sequence number in the high 16
    uint64_t parent_frn;    // as stored in the name attribute, sequence included
    uint64_t size;          // data size of the unnamed stream; 0 without one
    uint64_t date_modified; // FILETIME; all bits set when $STANDARD_INFORMATION was not seen
    uint64_t date_created;
    uint64_t date_accessed;
    uint32_t attributes;  // Windows attribute bits; 0x10 forced on for folders and off for all else
    uint32_t name_length; // UTF-16 units
    const uint16_t *name; // not terminated; 2-byte aligned
};

typedef void (*ntfs_callback_t)(void *user, const ntfs_file_record_t *record);

// What ntfs_enum_mft collects: the data size (1) and $STANDARD_INFORMATION (any of 2, 4, 8, 16).
enum {
    NTFS_WANT_SIZE = 1,
    NTFS_WANT_STANDARD_INFORMATION = 2 | 4 | 8 | 16,
    NTFS_WANT_ALL = 31,
};

// The volume's sector size (device geometry, 512 for an image), then the boot sector: signature,
// sector, cluster and record sizes, where $MFT begins. True with info filled; false (logged) when the
// volume can't be read or isn't NTFS.
bool ntfs_read_boot_sector(os_file_t volume, ntfs_boot_info_t *info);

// The pass over $MFT: callback(user, record) once per accepted name of every file in use, on the calling
// thread: records without an attribute list in table order, then those with one. Records 0 to 15 give
// nothing but the root folder (record 5); DOS names, names under the system's own folders and extension
// records of $MFT give nothing. A read failure ends the pass early with what was collected delivered.
void ntfs_enum_mft(os_file_t volume, const ntfs_boot_info_t *info, uint32_t flags, void *user,
                   ntfs_callback_t callback);

// One file's size, dates and attributes by its reference (frn_low: record number and sequence; frn_high
// unused on NTFS). out starts as unknown (all ones, attributes 0) and keeps whatever was found. The record
// is asked of the file system where it can answer, else read through the $MFT run map. True when both the
// standard information and the data size (or the folder bit) were found.
bool ntfs_get_fd(os_file_t volume, uint64_t frn_low, uint64_t frn_high, os_file_info_t *out);

// ---- the pass in pieces, for the pass itself, the tests and the fuzz targets
// -------------------------------

struct ntfs_mft_reader_t;

// A reader for records of record_size bytes (at least 42, at most 1 MiB), numbered from 0. Owns all its
// memory until ntfs_reader_finish.
ntfs_mft_reader_t *ntfs_reader_create(uint32_t record_size, uint32_t flags, void *user,
                                      ntfs_callback_t callback);
// Takes count whole records from buf, in order, numbering them on from the last. The fix-up is applied in
// place, so buf is changed.
void ntfs_reader_records(ntfs_mft_reader_t *reader, uint8_t *buf, uint32_t count);
// Joins the extension records to their bases, delivers the records held back, frees the reader.
void ntfs_reader_finish(ntfs_mft_reader_t *reader);

// The update sequence fix-up of one record of size bytes, in place. False (logged) when the array lies
// outside the record or a sector's check value doesn't match.
bool ntfs_fixup(uint8_t *record, uint32_t size);

// One run of a mapping-pair list: count clusters at lcn (sparse: no clusters on disk).
struct ntfs_run_t {
    uint64_t count;
    int64_t lcn;
    bool sparse;
};
// Decodes the next pair at *pos in [*pos, end) into run, moving *pos past it, with the cluster position
// running on from *lcn. Returns 1 for a run, 0 at the end of the list, -1 (logged) for a list that can't
// be decoded.
int ntfs_mapping_pair_next(const uint8_t **pos, const uint8_t *end, int64_t *lcn, ntfs_run_t *run);
