// The date columns of a list: a raw FILETIME in decimal, or an ISO 8601 date with an optional time of day
// and zone.
//
// Invariants:
// - A field never fails: whatever it holds gives some value, and only an empty field means unknown.
// - A date without a time of day, and a time without a zone mark, are local time, converted through
//   os_local_to_filetime (so a test can fix the zone through os_hooks).
#pragma once

#include <cstdint>

// Reads one date field (zero-terminated; null or "" give UINT64_MAX, unknown). Leading digits that end at
// anything but '-', 't' or 'T' are the FILETIME itself (no digits at all give 0). Otherwise the field is
// YYYY[-]MM[-]DD[Thh[:]mm[:]ss[.fraction][Z|+hh[[:]mm]|-hh[[:]mm]]]: a component that isn't there stops the
// reading, leaving it and the later ones zero, and what was read is taken as local time. 'Z' is UTC; an
// offset says how far the time is ahead of UTC. The fraction's first digit is worth 1,000,000 ticks, each
// further one a tenth of that, down to nothing from the eighth. A date or time that can't be converted
// (no such day, hour 24) gives 0.
uint64_t filelist_parse_date(const char *field);
