// schema.cpp: name look-ups in a parser schema.
#include "filter/schema.h"

#include <cstring>

const schema_section* search_section_schema(const schema_parser* schema, const char* name) {
    for (int i = 0; i < schema->section_count; ++i)
        if (std::strcmp(schema->sections[i].name, name) == 0) return &schema->sections[i];
    return nullptr;
}

const schema_key* search_key_schema(const schema_section* section, const char* name) {
    for (int i = 0; i < section->key_count; ++i)
        if (std::strcmp(section->keys[i].name, name) == 0) return &section->keys[i];
    return nullptr;
}
