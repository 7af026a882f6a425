// match.h: the string tests behind every filter rule. Used by filter.cpp and white-list.cpp.
// Case folding covers ASCII letters only; bytes above 0x7F compare exactly, so names
// that merely look alike (NFC against NFD, for one) are different names. No allocation.
#pragma once

#include <cstddef>

#include "filter/value-type.h"

// True when the n bytes of `a` and `b` are equal ignoring ASCII case.
bool ascii_equal_nocase(const char* a, const char* b, size_t n);

// True when s[0..n) holds any byte of `value`; false for a null `value`. Case-sensitive.
bool string_match(const char* value, const char* s, size_t n);

// True when an item equals s[0..n) ignoring ASCII case, or, with `prefix_match`, when
// s begins with an item. `hit` (optional) receives the first matching item.
bool string_set_match(const value_type_string_set* set, const char* s, size_t n, bool prefix_match,
                      const char** hit = nullptr);

// True when an item equals path[0..n) ignoring ASCII case, or path begins with the item
// and the next byte of path is '/': "/a/b" covers "/a/b" and "/a/b/c", not "/a/bc".
bool dir_prefix_string_set_match(const value_type_string_set* set, const char* path, size_t n,
                                 const char** hit = nullptr);
