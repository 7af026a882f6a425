// schema.h: the tables that drive the filter file parser. A schema lists the sections a
// file may hold and the keys of each, with each value's type and where it is stored in
// the result record. The filter and white list schemas are instances of these.
#pragma once

#include <cstddef>

#include "filter/value-type.h"

constexpr int SCHEMA_MAX_KEYS = 64;
constexpr int SCHEMA_MAX_SECTIONS = 32;

struct schema_key {
    const char* name;
    ::value_type value_type;
    size_t offset;  // of the value inside its section's structure
};

struct schema_section {
    const char* name;
    size_t offset;  // of the section's structure inside the result record
    int key_count;
    schema_key keys[SCHEMA_MAX_KEYS];
};

struct schema_parser {
    int major;
    int minor;
    int section_count;
    schema_section sections[SCHEMA_MAX_SECTIONS];
};

// The section or key named exactly `name` (case-sensitive), searched in order; null when
// the schema has none.
const schema_section* search_section_schema(const schema_parser* schema, const char* name);
const schema_key* search_key_schema(const schema_section* section, const char* name);
