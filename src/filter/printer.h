// printer.h: writes rules back in the filter file format, escaping what the parser or a
// shell could misread. Used by filter_print.
#pragma once

#include <cstddef>
#include <string>

#include "filter/value-type.h"

// Room for one escaped string with its quotes. A string whose escapes don't fit is cut
// at the last whole escape, so very long non-ASCII values don't survive a write.
constexpr size_t PRINTER_STRING_MAX = 1023;

// `str` as a quoted string into `out` (PRINTER_STRING_MAX + 1 bytes): tab, newline,
// vertical tab and form feed as \t \n \v \f; backslash and quote behind a backslash;
// '$', '@', '`' and every byte outside 0x20..0x7E as \xNN. Returns the length written.
size_t escape_string(const char* str, char* out);
// The same, appended to `out`.
void print_escaped_string(std::string& out, const char* str);
// "key = " and the items separated by ", "; a new line (a continuation) starts after every
// fifth item, or earlier when the line would outgrow what the parser reads as one line.
// Nothing for an empty set.
void print_string_set_rule(std::string& out, const char* key, const value_type_string_set* set);
// "key = " and one escaped string; nothing for a null string.
void print_string_rule(std::string& out, const char* key, const value_type_string* value);
