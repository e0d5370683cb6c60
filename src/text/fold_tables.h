// The generated rows of the three folding maps (fold_tables.cpp, written by tools/gen_fold.py). Each map is
// a pair of arrays of equal length sorted by key; only fold.cpp and its tests read them directly.
#pragma once

#include <cstdint>

extern const uint16_t text_fold_lower_keys[];
extern const uint16_t text_fold_lower_values[];
extern const int text_fold_lower_count;
extern const uint16_t text_fold_base_keys[];
extern const uint16_t text_fold_base_values[];
extern const int text_fold_base_count;
extern const uint16_t text_fold_lower_base_keys[];
extern const uint16_t text_fold_lower_base_values[];
extern const int text_fold_lower_base_count;
