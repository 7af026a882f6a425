// value-type.h: the value types a filter file can hold (integers, one string, a list of
// strings) and their plain C-style operations. Used by the parser, which fills them, and
// by the filter and white list records, which are made of them.
#pragma once

#include <cstddef>

enum value_type {
    integer32_type = 0,
    integer64_type = 1,
    string_type = 2,
    string_set_type = 3,
};

// One owned heap string, or null when unset.
struct value_type_string {
    char* str;
};

// A list of owned strings in insertion order. Not a true set: duplicates are kept, and a
// removal moves the last item into the hole.
struct value_type_string_set {
    char** set;
    size_t used;
    size_t capacity;
};

void vt_string_init(value_type_string* v);
void vt_string_destroy(value_type_string* v);
// Copies `str` first and only then frees the old value, so `str` may point into it.
// 0, or -1 when out of memory (the old value is kept then).
int vt_string_assign(value_type_string* v, const char* str);

// Room for `capacity` items; 0 means 4. 0, or -1 when out of memory (the set is empty).
int vt_string_set_init(value_type_string_set* set, size_t capacity);
// Appends a copy of `str`, doubling the room when full. 0, or -1 when out of memory.
int vt_string_set_insert(value_type_string_set* set, const char* str);
// Frees the first item equal to `str` (case-sensitive) and moves the last item into its
// place. Always 0, also when nothing matched.
int vt_string_set_remove(value_type_string_set* set, const char* str);
// Frees every item and the array; the set is left null and empty.
void vt_string_set_destroy(value_type_string_set* set);
