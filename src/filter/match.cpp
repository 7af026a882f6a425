// match.cpp: ASCII-folding comparisons over rule lists.
#include "filter/match.h"

#include <cstring>

namespace {
unsigned char fold(unsigned char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}
}  // namespace

bool ascii_equal_nocase(const char* a, const char* b, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (fold(static_cast<unsigned char>(a[i])) != fold(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

bool string_match(const char* value, const char* s, size_t n) {
    if (value == nullptr) return false;
    for (const char* v = value; *v != '\0'; ++v)
        if (std::memchr(s, *v, n) != nullptr) return true;
    return false;
}

bool string_set_match(const value_type_string_set* set, const char* s, size_t n, bool prefix_match,
                      const char** hit) {
    for (size_t i = 0; i < set->used; ++i) {
        const char* item = set->set[i];
        size_t len = std::strlen(item);
        bool match = prefix_match ? len <= n && ascii_equal_nocase(item, s, len)
                                  : len == n && ascii_equal_nocase(item, s, n);
        if (!match) continue;
        if (hit != nullptr) *hit = item;
        return true;
    }
    return false;
}

bool dir_prefix_string_set_match(const value_type_string_set* set, const char* path, size_t n,
                                 const char** hit) {
    for (size_t i = 0; i < set->used; ++i) {
        const char* item = set->set[i];
        size_t len = std::strlen(item);
        if (len > n || !ascii_equal_nocase(item, path, len)) continue;
        if (len < n && path[len] != '/') continue;
        if (hit != nullptr) *hit = item;
        return true;
    }
    return false;
}
