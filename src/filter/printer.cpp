// printer.cpp: escaping and line layout of printed rules.
#include "filter/printer.h"

#include <cstdio>
#include <cstring>

#include "filter/parser.h"

size_t escape_string(const char* str, char* out) {
    size_t n = 0;
    out[n++] = '"';
    for (const unsigned char* s = reinterpret_cast<const unsigned char*>(str); *s; ++s) {
        char piece[5];
        unsigned char c = *s;
        switch (c) {
            case '\t':
                std::memcpy(piece, "\\t", 3);
                break;
            case '\n':
                std::memcpy(piece, "\\n", 3);
                break;
            case '\v':
                std::memcpy(piece, "\\v", 3);
                break;
            case '\f':
                std::memcpy(piece, "\\f", 3);
                break;
            case '\\':
                std::memcpy(piece, "\\\\", 3);
                break;
            case '"':
                std::memcpy(piece, "\\\"", 3);
                break;
            default:
                if (c < 0x20 || c > 0x7e || c == '$' || c == '@' || c == '`')
                    std::snprintf(piece, sizeof(piece), "\\x%02x", c);
                else
                    piece[0] = static_cast<char>(c), piece[1] = '\0';
        }
        size_t len = std::strlen(piece);
        if (n + len + 1 > PRINTER_STRING_MAX) break;  // keep room for the closing quote
        std::memcpy(out + n, piece, len);
        n += len;
    }
    out[n++] = '"';
    out[n] = '\0';
    return n;
}

void print_escaped_string(std::string& out, const char* str) {
    char text[PRINTER_STRING_MAX + 1];
    out.append(text, escape_string(str, text));
}

void print_string_set_rule(std::string& out, const char* key, const value_type_string_set* set) {
    if (set->used == 0) return;
    out += key;
    out += " = ";
    size_t line_len = std::strlen(key) + 3;
    for (size_t i = 0; i < set->used; ++i) {
        char text[PRINTER_STRING_MAX + 1];
        size_t len = escape_string(set->set[i], text);
        if (i > 0) {
            bool wrap = i % 5 == 0 || line_len + 2 + len > static_cast<size_t>(PARSER_LINE_MAX);
            out += wrap ? ",\n" : ", ";
            line_len = wrap ? 0 : line_len + 2;
        }
        out.append(text, len);
        line_len += len;
    }
    out += '\n';
}

void print_string_rule(std::string& out, const char* key, const value_type_string* value) {
    if (value->str == nullptr) return;
    out += key;
    out += " = ";
    print_escaped_string(out, value->str);
    out += '\n';
}
