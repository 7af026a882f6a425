// value-type.cpp: owned strings and string lists on the C heap.
#include "filter/value-type.h"

#include <cstdlib>
#include <cstring>

void vt_string_init(value_type_string* v) {
    v->str = nullptr;
}

void vt_string_destroy(value_type_string* v) {
    std::free(v->str);
    v->str = nullptr;
}

int vt_string_assign(value_type_string* v, const char* str) {
    char* copy = ::strdup(str);
    if (copy == nullptr) return -1;
    std::free(v->str);
    v->str = copy;
    return 0;
}

int vt_string_set_init(value_type_string_set* set, size_t capacity) {
    if (capacity == 0) capacity = 4;
    set->used = 0;
    set->set = static_cast<char**>(std::calloc(capacity, sizeof(char*)));
    set->capacity = set->set != nullptr ? capacity : 0;
    return set->set != nullptr ? 0 : -1;
}

int vt_string_set_insert(value_type_string_set* set, const char* str) {
    if (set->used == set->capacity) {
        size_t want = set->capacity == 0 ? 4 : set->capacity * 2;
        void* grown = std::realloc(set->set, want * sizeof(char*));
        if (grown == nullptr) return -1;
        set->set = static_cast<char**>(grown);
        set->capacity = want;
    }
    char* copy = ::strdup(str);
    if (copy == nullptr) return -1;
    set->set[set->used++] = copy;
    return 0;
}

int vt_string_set_remove(value_type_string_set* set, const char* str) {
    for (size_t i = 0; i < set->used; ++i) {
        if (std::strcmp(set->set[i], str) != 0) continue;
        std::free(set->set[i]);
        set->set[i] = set->set[set->used - 1];
        set->set[--set->used] = nullptr;
        break;
    }
    return 0;
}

void vt_string_set_destroy(value_type_string_set* set) {
    for (size_t i = 0; i < set->used; ++i) std::free(set->set[i]);
    std::free(set->set);
    set->set = nullptr;
    set->used = 0;
    set->capacity = 0;
}
