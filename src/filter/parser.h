// parser.h: the schema-driven reader of filter and white list files, an INI-like text
// format of sections, keys and typed values. Used by filter_read and white_list_read;
// the controller's `filter check` uses the report to name the failing line.
#pragma once

#include <string>

#include "filter/schema.h"

enum parse_result {
    PARSE_DONE = 0,     // every line understood
    PARSE_PARTIAL = 1,  // understood, but some keys were unknown and skipped
    PARSE_ERROR = 2,
};

// Why a parse stopped. The parser keeps these negated in parser::error_code.
enum parser_error {
    NO_ERROR = 0,
    SECTION_MISSING_LEFT_BRACKET = 1,
    SECTION_MISSING_RIGHT_BRACKET = 2,
    SECTION_MISSING_SECTION = 3,
    SECTION_ILLEGAL_CHARACTER = 4,
    SECTION_TOO_LONG = 5,
    SECTION_UNDEFINED_SECTION = 6,
    KEY_MISSING_KEY = 7,
    KEY_ILLEGAL_CHARACTER = 8,
    KEY_TOO_LONG = 9,
    KEY_UNDEFINED_KEY = 10,
    VALUE_NUMERIC_MISSING_INTEGER_PART = 11,
    VALUE_NUMERIC_MISSING_FRACTIONAL_PART = 12,
    VALUE_NUMERIC_MISSING_VALUE = 13,
    VALUE_NUMERIC_ILLEGAL_SYNTAX = 14,
    VALUE_STRING_MISSING_LEFT_QUOTE = 15,
    VALUE_STRING_MISSING_RIGHT_QUOTE = 16,
    VALUE_STRING_ESCAPE_ILLEGAL_SEQUENCE = 17,
    VALUE_STRING_ESCAPE_ILLEGAL_HEX_VALUE = 18,
    VALUE_STRING_ESCAPE_ILLEGAL_OCT_VALUE = 19,
    VALUE_STRING_ILLEGAL_CHARACTER = 20,
    VALUE_STRING_EMPTY = 21,
    VALUE_SET_MISSING_SEPARATER = 22,
    VALUE_TOO_LONG = 23,
    LINE_NOT_ENDED = 24,
    LINE_NOT_EXPECTED = 25,
    INTERNAL_ERROR = 26,
    MAX_ERROR_CODE = 27,
};

// Limits of the format.
constexpr int PARSER_NAME_MAX = 32;     // letters, digits, '-' and '_' of a section or key name
constexpr int PARSER_LINE_MAX = 1024;   // bytes of a line; the rest of a longer one is a new line
constexpr int PARSER_STRING_MAX = 512;  // bytes of a string value after escapes
constexpr int PARSER_NUMBER_MAX = 511;  // bytes of the text of a number
// Filter files are a few kilobytes; anything far larger is not one, and reading it
// would only grow memory and slow every path test.
constexpr long PARSER_FILE_MAX = 1L << 20;

// Bits of parser::next_expect.
enum {
    EXPECT_SECTION = 1,
    EXPECT_KEY = 2,
    EXPECT_VALUE = 4,
};

// The working state of one parse.
struct parser {
    void* result;
    const schema_parser* parser_schema;
    void* section;
    const schema_section* section_schema;
    char section_name[PARSER_NAME_MAX + 1];
    void* key;
    const schema_key* key_schema;
    char key_name[PARSER_NAME_MAX + 1];
    int line_count;
    int line_pos;
    char line_buffer[PARSER_LINE_MAX + 1];
    int unknown_key_count;
    int next_expect;
    int error_code;
    // The line in line_buffer: its length, whether a newline ended it, and whether it was
    // cut at PARSER_LINE_MAX with more of it still to come.
    int line_len;
    bool line_ended;
    bool line_cut;
    long bytes_read;
    // The first unknown key and its line, for reports.
    int first_unknown_line;
    char first_unknown_key[PARSER_NAME_MAX + 1];
};

// What a parse found, for callers that show it to people.
struct parse_report {
    parse_result result = PARSE_DONE;
    int error_code = NO_ERROR;  // a parser_error; NO_ERROR when the file itself couldn't be read
    int line = 0;  // 1-based line of the error or else of the first unknown key; 0 for none
    int unknown_key_count = 0;
    std::string first_unknown_key;
    std::string message;  // e.g. "SECTION_UNDEFINED_SECTION at line 3"; empty on success
};

// Reads the file at `path` (UTF-8) into `result`, a record laid out as `schema` says.
// Values are added to what `result` already holds; on PARSE_ERROR it may be partly filled
// and the caller destroys it. Prints "parser: NAME at line N" to standard error on a
// grammar error and "warning: unknown key (NAME)" to standard output per unknown key.
// A file that can't be opened or read, or is larger than PARSER_FILE_MAX, is PARSE_ERROR.
parse_result parse(const char* path, const schema_parser* schema, void* result,
                   parse_report* report = nullptr);
// The same over the whole text of a file held in memory.
parse_result parse_text(const char* data, size_t len, const schema_parser* schema, void* result,
                        parse_report* report = nullptr);

// The name of a code as parser::error_code keeps it (negated), "Unknown error" for a
// value outside the list. Static storage.
const char* parser_error_string(int stored_code);

// The message for a file refused for its unknown keys, naming the first one and its line.
std::string unknown_key_message(const parse_report& report, int major, int minor);
