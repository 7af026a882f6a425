// sql-escape.cpp: the @ZEPH statement templates and GLOB-literal escaping.
#include "state/sql-escape.h"

#include <cstdint>
#include <cstring>

namespace {

void AppendQuoted(std::string& out, const char* text) {
    for (const char* p = text; *p != '\0'; ++p) {
        out += *p;
        if (*p == '\'') out += '\'';
    }
}

void AppendLikeQuoted(std::string& out, const char* text) {
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '\\' || *p == '%' || *p == '_') out += '\\';
        out += *p;
        if (*p == '\'') out += '\'';
    }
}

bool StartsWith(const char* at, const char* word) {
    return std::strncmp(at, word, std::strlen(word)) == 0;
}

}  // namespace

std::unique_ptr<char[]> SQLITEEscapeStringEX3(const char* tmpl, va_list args) {
    if (tmpl == nullptr) return nullptr;
    std::string out;
    out.reserve(4096);
    bool seen_quote = false;
    bool like_since_quote = false;
    for (const char* p = tmpl; *p != '\0';) {
        if (*p == '\'') {
            out += '\'';
            if (seen_quote && like_since_quote) {
                out += " escape '\\'";
                like_since_quote = false;
            }
            seen_quote = true;
            ++p;
            continue;
        }
        if (*p != '@') {
            out += *p++;
            continue;
        }
        if (StartsWith(p, "@ZEPH:VAR")) {
            const char* text = va_arg(args, const char*);
            if (text != nullptr) AppendQuoted(out, text);
            p += std::strlen("@ZEPH:VAR");
        } else if (StartsWith(p, "@ZEPH:LVAR")) {
            const char* text = va_arg(args, const char*);
            if (text != nullptr && *text != '\0') {
                AppendLikeQuoted(out, text);
                like_since_quote = true;
            }
            p += std::strlen("@ZEPH:LVAR");
        } else if (StartsWith(p, "@ZEPH:INT")) {
            out += std::to_string(va_arg(args, int));
            p += std::strlen("@ZEPH:INT");
        } else if (StartsWith(p, "@ZEPH:LLINT")) {
            out += std::to_string(static_cast<long long>(va_arg(args, int64_t)));
            p += std::strlen("@ZEPH:LLINT");
        } else if (StartsWith(p, "@ZEPH:NEVAR")) {
            const char* text = va_arg(args, const char*);
            if (text != nullptr) out += text;
            p += std::strlen("@ZEPH:NEVAR");
        } else {
            out += *p++;
        }
    }
    auto result = std::make_unique<char[]>(out.size() + 1);
    std::memcpy(result.get(), out.c_str(), out.size() + 1);
    return result;
}

std::unique_ptr<char[]> ZEPHDBEscapeStringEX3(const char* tmpl, ...) {
    va_list args;
    va_start(args, tmpl);
    std::unique_ptr<char[]> result = SQLITEEscapeStringEX3(tmpl, args);
    va_end(args);
    return result;
}

std::string GlobLiteral(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '*' || c == '?' || c == '[') {
            out += '[';
            out += c;
            out += ']';
        } else {
            out += c;
        }
    }
    return out;
}
