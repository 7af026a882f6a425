// parser.cpp: line reader, section/key/value grammar and the UTF-8 check of string values.
#include "filter/parser.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/fs.h"

namespace {

const char* const kErrorNames[MAX_ERROR_CODE] = {
    "NO_ERROR",
    "SECTION_MISSING_LEFT_BRACKET",
    "SECTION_MISSING_RIGHT_BRACKET",
    "SECTION_MISSING_SECTION",
    "SECTION_ILLEGAL_CHARACTER",
    "SECTION_TOO_LONG",
    "SECTION_UNDEFINED_SECTION",
    "KEY_MISSING_KEY",
    "KEY_ILLEGAL_CHARACTER",
    "KEY_TOO_LONG",
    "KEY_UNDEFINED_KEY",
    "VALUE_NUMERIC_MISSING_INTEGER_PART",
    "VALUE_NUMERIC_MISSING_FRACTIONAL_PART",
    "VALUE_NUMERIC_MISSING_VALUE",
    "VALUE_NUMERIC_ILLEGAL_SYNTAX",
    "VALUE_STRING_MISSING_LEFT_QUOTE",
    "VALUE_STRING_MISSING_RIGHT_QUOTE",
    "VALUE_STRING_ESCAPE_ILLEGAL_SEQUENCE",
    "VALUE_STRING_ESCAPE_ILLEGAL_HEX_VALUE",
    "VALUE_STRING_ESCAPE_ILLEGAL_OCT_VALUE",
    "VALUE_STRING_ILLEGAL_CHARACTER",
    "VALUE_STRING_EMPTY",
    "VALUE_SET_MISSING_SEPARATER",
    "VALUE_TOO_LONG",
    "LINE_NOT_ENDED",
    "LINE_NOT_EXPECTED",
    "INTERNAL_ERROR",
};

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\r';
}
bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
bool is_name_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || is_digit(c) || c == '-' || c == '_';
}
bool is_control(unsigned char c) {
    return c < 0x20 || c == 0x7f;
}
bool is_hex(char c) {
    return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
int hex_value(char c) {
    if (is_digit(c)) return c - '0';
    return (c | 0x20) - 'a' + 10;
}

// Well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool valid_utf8(const unsigned char* s, size_t n) {
    size_t i = 0;
    while (i < n) {
        unsigned char c = s[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        size_t extra;
        uint32_t cp, min;
        if ((c & 0xe0) == 0xc0) {
            extra = 1, cp = c & 0x1f, min = 0x80;
        } else if ((c & 0xf0) == 0xe0) {
            extra = 2, cp = c & 0x0f, min = 0x800;
        } else if ((c & 0xf8) == 0xf0) {
            extra = 3, cp = c & 0x07, min = 0x10000;
        } else {
            return false;
        }
        if (n - i <= extra) return false;
        for (size_t k = 1; k <= extra; ++k) {
            if ((s[i + k] & 0xc0) != 0x80) return false;
            cp = (cp << 6) | (s[i + k] & 0x3f);
        }
        if (cp < min || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return false;
        i += extra + 1;
    }
    return true;
}

int fail(parser* p, int code) {
    p->error_code = -code;
    return -1;
}

bool at_line_end(const parser* p) {
    return p->line_pos >= p->line_len;
}
char peek(const parser* p) {
    return at_line_end(p) ? '\0' : p->line_buffer[p->line_pos];
}
void skip_space(parser* p) {
    while (!at_line_end(p) && is_space(p->line_buffer[p->line_pos])) ++p->line_pos;
}
// Nothing but white space or a comment is left on the line.
bool rest_is_empty(parser* p) {
    skip_space(p);
    return at_line_end(p) || peek(p) == '#';
}

// The bytes of a whole file and how far the parser has taken them.
struct text_cursor {
    const char* data;
    size_t len;
    size_t pos;

    int get() { return pos < len ? static_cast<unsigned char>(data[pos++]) : EOF; }
};

// Reads the next line, without its newline, into line_buffer. False at the end.
bool read_line(parser* p, text_cursor& in) {
    p->line_len = 0;
    p->line_ended = false;
    p->line_cut = false;
    int c = EOF;
    while (p->line_len < PARSER_LINE_MAX && (c = in.get()) != EOF) {
        ++p->bytes_read;
        if (c == '\n') {
            p->line_ended = true;
            break;
        }
        p->line_buffer[p->line_len++] = static_cast<char>(c);
    }
    p->line_buffer[p->line_len] = '\0';
    if (p->line_len == PARSER_LINE_MAX && !p->line_ended) {
        c = in.get();
        if (c == '\n') {
            ++p->bytes_read;
            p->line_ended = true;
        } else if (c != EOF) {
            --in.pos;
            p->line_cut = true;
        }
    }
    return p->line_len > 0 || p->line_ended;
}

int parse_section(parser* p) {
    ++p->line_pos;  // the '['
    int n = 0;
    for (;;) {
        if (at_line_end(p) || peek(p) == '#') return fail(p, SECTION_MISSING_RIGHT_BRACKET);
        char c = peek(p);
        if (c == ']') break;
        if (!is_name_char(c)) return fail(p, SECTION_ILLEGAL_CHARACTER);
        if (n == PARSER_NAME_MAX) return fail(p, SECTION_TOO_LONG);
        p->section_name[n++] = c;
        ++p->line_pos;
    }
    p->section_name[n] = '\0';
    if (n == 0) return fail(p, SECTION_MISSING_SECTION);
    ++p->line_pos;  // the ']'
    if (!rest_is_empty(p)) return fail(p, LINE_NOT_ENDED);
    const schema_section* s = search_section_schema(p->parser_schema, p->section_name);
    if (s == nullptr) return fail(p, SECTION_UNDEFINED_SECTION);
    p->section_schema = s;
    p->section = static_cast<char*>(p->result) + s->offset;
    p->next_expect = EXPECT_SECTION | EXPECT_KEY;
    return 0;
}

int parse_number(parser* p) {
    int start = p->line_pos;
    while (!at_line_end(p) && !is_space(peek(p)) && peek(p) != '#') ++p->line_pos;
    int len = p->line_pos - start;
    if (len > PARSER_NUMBER_MAX) return fail(p, VALUE_TOO_LONG);
    if (len == 0) return fail(p, VALUE_NUMERIC_MISSING_VALUE);
    char text[PARSER_NUMBER_MAX + 1];
    std::memcpy(text, p->line_buffer + start, len);
    text[len] = '\0';

    int i = 0;
    if (text[i] == '+' || text[i] == '-') ++i;
    if (text[i] == '0') {
        ++i;  // a leading zero is the whole integer part
    } else if (is_digit(text[i])) {
        while (is_digit(text[i])) ++i;
    } else {
        return fail(p, VALUE_NUMERIC_MISSING_INTEGER_PART);
    }
    if (text[i] == '.') {
        ++i;
        if (!is_digit(text[i])) return fail(p, VALUE_NUMERIC_MISSING_FRACTIONAL_PART);
        while (is_digit(text[i])) ++i;
    }
    if (i != len) return fail(p, VALUE_NUMERIC_ILLEGAL_SYNTAX);
    if (!rest_is_empty(p)) return fail(p, LINE_NOT_ENDED);

    // Out-of-range numbers saturate, and a fraction is dropped.
    if (p->key_schema->value_type == integer32_type) {
        long long v = std::strtoll(text, nullptr, 10);
        if (v > INT_MAX) v = INT_MAX;
        if (v < INT_MIN) v = INT_MIN;
        *static_cast<int*>(p->key) = static_cast<int>(v);
    } else if (text[0] == '-') {
        *static_cast<uint64_t*>(p->key) = static_cast<uint64_t>(std::strtoll(text, nullptr, 10));
    } else {
        // Unsigned, so that a limit printed back (always unsigned) reads as itself.
        *static_cast<uint64_t*>(p->key) = std::strtoull(text, nullptr, 10);
    }
    p->next_expect = EXPECT_SECTION | EXPECT_KEY;
    return 0;
}

// The escape after a backslash; the position is on the character after it.
int parse_escape(parser* p, unsigned char* out) {
    if (at_line_end(p)) return fail(p, VALUE_STRING_ILLEGAL_CHARACTER);
    const char* s = p->line_buffer + p->line_pos;
    int left = p->line_len - p->line_pos;
    static const char kSimple[] = "abfnrtv'\"\\?";
    static const char kValues[] = "\a\b\f\n\r\t\v'\"\\?";
    if (const char* hit = std::strchr(kSimple, s[0]); hit != nullptr && s[0] != '\0') {
        *out = static_cast<unsigned char>(kValues[hit - kSimple]);
        p->line_pos += 1;
        return 0;
    }
    if (s[0] == 'x') {
        if (left < 3 || !is_hex(s[1]) || !is_hex(s[2]))
            return fail(p, VALUE_STRING_ILLEGAL_CHARACTER);
        *out = static_cast<unsigned char>(hex_value(s[1]) * 16 + hex_value(s[2]));
        p->line_pos += 3;
    } else if (s[0] >= '0' && s[0] <= '3') {
        if (left < 3 || s[1] < '0' || s[1] > '7' || s[2] < '0' || s[2] > '7')
            return fail(p, VALUE_STRING_ILLEGAL_CHARACTER);
        *out = static_cast<unsigned char>((s[0] - '0') * 64 + (s[1] - '0') * 8 + (s[2] - '0'));
        p->line_pos += 3;
    } else {
        return fail(p, VALUE_STRING_ILLEGAL_CHARACTER);
    }
    // A NUL would silently end the string everywhere it is used.
    if (*out == 0) return fail(p, VALUE_STRING_ILLEGAL_CHARACTER);
    return 0;
}

// One quoted string into `out` (PARSER_STRING_MAX + 1 bytes), NUL-terminated.
int parse_string(parser* p, char* out) {
    if (peek(p) != '"') return fail(p, VALUE_STRING_MISSING_LEFT_QUOTE);
    ++p->line_pos;
    int n = 0;
    for (;;) {
        if (at_line_end(p)) {
            // Only the last line of a file, with no newline, may end an open string; a
            // line cut for length is not the end of anything.
            if (p->line_ended || p->line_cut) return fail(p, VALUE_STRING_MISSING_RIGHT_QUOTE);
            break;
        }
        unsigned char c = static_cast<unsigned char>(p->line_buffer[p->line_pos++]);
        if (c == '"') break;
        if (c == '\\') {
            if (parse_escape(p, &c) < 0) return -1;
        } else if (is_control(c)) {
            return fail(p, VALUE_STRING_ILLEGAL_CHARACTER);
        }
        if (n == PARSER_STRING_MAX) return fail(p, VALUE_TOO_LONG);
        out[n++] = static_cast<char>(c);
    }
    out[n] = '\0';
    if (n == 0) return fail(p, VALUE_STRING_EMPTY);
    // Rules are compared with UTF-8 paths; a value that isn't UTF-8 could never match and
    // is a sign of a file written in another encoding.
    if (!valid_utf8(reinterpret_cast<unsigned char*>(out), n))
        return fail(p, VALUE_STRING_ILLEGAL_CHARACTER);
    return 0;
}

int parse_string_value(parser* p) {
    char text[PARSER_STRING_MAX + 1];
    if (parse_string(p, text) < 0) return -1;
    if (!rest_is_empty(p)) return fail(p, LINE_NOT_ENDED);
    if (vt_string_assign(static_cast<value_type_string*>(p->key), text) < 0)
        return fail(p, INTERNAL_ERROR);
    p->next_expect = EXPECT_SECTION | EXPECT_KEY;
    return 0;
}

int parse_set_value(parser* p) {
    auto* set = static_cast<value_type_string_set*>(p->key);
    for (;;) {
        char text[PARSER_STRING_MAX + 1];
        if (parse_string(p, text) < 0) return -1;
        if (vt_string_set_insert(set, text) < 0) return fail(p, INTERNAL_ERROR);
        if (rest_is_empty(p)) {
            p->next_expect = EXPECT_SECTION | EXPECT_KEY;
            return 0;
        }
        if (peek(p) != ',') {
            // Kept positive on purpose: the printed message then reads "Unknown error".
            p->error_code = VALUE_SET_MISSING_SEPARATER;
            return -1;
        }
        ++p->line_pos;
        if (rest_is_empty(p)) return 0;  // the list goes on in the next line
    }
}

int parse_value(parser* p) {
    switch (p->key_schema->value_type) {
        case integer32_type:
        case integer64_type:
            return parse_number(p);
        case string_type:
            return parse_string_value(p);
        case string_set_type:
            return parse_set_value(p);
    }
    return fail(p, INTERNAL_ERROR);
}

int parse_key(parser* p) {
    int n = 0;
    while (!at_line_end(p) && is_name_char(peek(p))) {
        if (n == PARSER_NAME_MAX) return fail(p, KEY_TOO_LONG);
        p->key_name[n++] = peek(p);
        ++p->line_pos;
    }
    p->key_name[n] = '\0';
    if (n == 0) return fail(p, KEY_MISSING_KEY);
    const schema_key* k = search_key_schema(p->section_schema, p->key_name);
    if (k == nullptr) {
        // A newer minor version may add keys; the caller decides whether that is fine.
        std::printf("warning: unknown key (%s)\n", p->key_name);
        if (p->unknown_key_count++ == 0) {
            p->first_unknown_line = p->line_count;
            std::memcpy(p->first_unknown_key, p->key_name, sizeof(p->key_name));
        }
        return 0;
    }
    p->key_schema = k;
    p->key = static_cast<char*>(p->section) + k->offset;
    skip_space(p);
    if (peek(p) != '=' || at_line_end(p)) return fail(p, KEY_ILLEGAL_CHARACTER);
    ++p->line_pos;
    skip_space(p);
    p->next_expect = EXPECT_VALUE;
    return parse_value(p);
}

int parse_line(parser* p) {
    skip_space(p);
    if (at_line_end(p) || peek(p) == '#') return 0;
    char c = peek(p);
    if ((p->next_expect & EXPECT_SECTION) && c == '[') return parse_section(p);
    if ((p->next_expect & EXPECT_VALUE) && c == '"') return parse_value(p);
    if (!(p->next_expect & EXPECT_KEY)) return fail(p, LINE_NOT_EXPECTED);
    return parse_key(p);
}

parse_result finish(parser* p, parse_report* report, parse_result r, const std::string& why) {
    if (report != nullptr) {
        report->result = r;
        report->error_code = p->error_code < 0 ? -p->error_code : p->error_code;
        report->line = r == PARSE_ERROR && p->error_code != 0 ? p->line_count
                       : r == PARSE_PARTIAL                   ? p->first_unknown_line
                                                              : 0;
        report->unknown_key_count = p->unknown_key_count;
        report->first_unknown_key = p->first_unknown_key;
        report->message = why;
    }
    return r;
}

// Reads the file into `text`, at most one byte beyond PARSER_FILE_MAX: enough for the
// parser to see that it is too large. 0; -1 when it can't be opened, -2 on a read error.
int read_head(const char* path, std::string& text, int& err) {
    std::unique_ptr<platform::File> file;
    if (platform::file_system().open(path, platform::kOpenRead, file, &err) != 0) return -1;
    text.resize(static_cast<size_t>(PARSER_FILE_MAX) + 1);
    int64_t got = platform::read_full(*file, text.data(), text.size(), &err);
    if (got < 0) return -2;
    text.resize(static_cast<size_t>(got));
    return 0;
}

}  // namespace

const char* parser_error_string(int stored_code) {
    int code = -stored_code;
    if (code < 0 || code >= MAX_ERROR_CODE) return "Unknown error";
    return kErrorNames[code];
}

parse_result parse_text(const char* data, size_t len, const schema_parser* schema, void* result,
                        parse_report* report) {
    text_cursor in{data, len, 0};
    parser p;
    std::memset(&p, 0, sizeof(p));
    p.result = result;
    p.parser_schema = schema;
    p.next_expect = EXPECT_SECTION;
    while (read_line(&p, in)) {
        ++p.line_count;
        p.line_pos = 0;
        if (p.bytes_read > PARSER_FILE_MAX) {
            std::string why = "file larger than " + std::to_string(PARSER_FILE_MAX) + " bytes";
            std::fprintf(stderr, "parser: %s\n", why.c_str());
            return finish(&p, report, PARSE_ERROR, why);
        }
        if (parse_line(&p) < 0) {
            std::fprintf(stderr, "parser: %s at line %d\n", parser_error_string(p.error_code),
                         p.line_count);
            int code = p.error_code < 0 ? -p.error_code : p.error_code;
            return finish(
                &p, report, PARSE_ERROR,
                std::string(kErrorNames[code]) + " at line " + std::to_string(p.line_count));
        }
    }
    return finish(&p, report, p.unknown_key_count > 0 ? PARSE_PARTIAL : PARSE_DONE, "");
}

parse_result parse(const char* path, const schema_parser* schema, void* result,
                   parse_report* report) {
    std::string text;
    int err = 0;
    int stage = read_head(path, text, err);
    if (stage != 0) {
        std::string why =
            std::string(stage == -1 ? "can't open: " : "read error: ") + std::strerror(err);
        if (stage == -2) std::fprintf(stderr, "parser: %s\n", why.c_str());
        if (report != nullptr) {
            *report = parse_report();
            report->result = PARSE_ERROR;
            report->message = why;
        }
        return PARSE_ERROR;
    }
    return parse_text(text.data(), text.size(), schema, result, report);
}

std::string unknown_key_message(const parse_report& report, int major, int minor) {
    return "unknown key (" + report.first_unknown_key + ") at line " + std::to_string(report.line) +
           " in a file of version " + std::to_string(major) + "." + std::to_string(minor) +
           "; unknown keys are allowed from version 1.1";
}
