// request-args.cpp: key=value words and a small JSON reader for control requests.
#include "request-args.h"

#include <cerrno>
#include <cstdlib>

namespace {

class JsonReader {
  public:
    explicit JsonReader(const std::string& text) : m_text(text) {}

    bool read(PObject& out, std::string& error) {
        if (!value(out, 0)) {
            error = m_error + " at offset " + std::to_string(m_pos);
            return false;
        }
        skip_blanks();
        if (m_pos != m_text.size()) {
            error = "unexpected text after the value at offset " + std::to_string(m_pos);
            return false;
        }
        return true;
    }

  private:
    static constexpr int kMaxDepth = 64;

    bool fail(const char* message) {
        m_error = message;
        return false;
    }

    void skip_blanks() {
        while (m_pos < m_text.size() && (m_text[m_pos] == ' ' || m_text[m_pos] == '\t' ||
                                         m_text[m_pos] == '\n' || m_text[m_pos] == '\r'))
            ++m_pos;
    }

    bool literal(const char* word) {
        std::string w(word);
        if (m_text.compare(m_pos, w.size(), w) != 0) return false;
        m_pos += w.size();
        return true;
    }

    bool value(PObject& out, int depth) {
        if (depth > kMaxDepth) return fail("nesting too deep");
        skip_blanks();
        if (m_pos >= m_text.size()) return fail("missing value");
        char c = m_text[m_pos];
        if (c == '{') return object(out, depth);
        if (c == '[') return array(out, depth);
        if (c == '"') {
            std::string s;
            if (!string(s)) return false;
            out = s.c_str();
            return true;
        }
        if (c == '-' || (c >= '0' && c <= '9')) return number(out);
        if (literal("true")) {
            out = true;
        } else if (literal("false")) {
            out = false;
        } else if (literal("null")) {
            out.clear();
        } else {
            return fail("unexpected character");
        }
        return true;
    }

    bool object(PObject& out, int depth) {
        ++m_pos;
        out.asMap();
        skip_blanks();
        if (m_pos < m_text.size() && m_text[m_pos] == '}') {
            ++m_pos;
            return true;
        }
        for (;;) {
            skip_blanks();
            std::string key;
            if (m_pos >= m_text.size() || m_text[m_pos] != '"') return fail("expected a key");
            if (!string(key)) return false;
            skip_blanks();
            if (m_pos >= m_text.size() || m_text[m_pos] != ':') return fail("expected ':'");
            ++m_pos;
            if (!value(out[key.c_str()], depth + 1)) return false;
            skip_blanks();
            if (m_pos < m_text.size() && m_text[m_pos] == ',') {
                ++m_pos;
                continue;
            }
            if (m_pos < m_text.size() && m_text[m_pos] == '}') {
                ++m_pos;
                return true;
            }
            return fail("expected ',' or '}'");
        }
    }

    bool array(PObject& out, int depth) {
        ++m_pos;
        PObject::array_type items;
        skip_blanks();
        if (m_pos < m_text.size() && m_text[m_pos] == ']') {
            ++m_pos;
            out = items;
            return true;
        }
        for (;;) {
            items.emplace_back();
            if (!value(items.back(), depth + 1)) return false;
            skip_blanks();
            if (m_pos < m_text.size() && m_text[m_pos] == ',') {
                ++m_pos;
                continue;
            }
            if (m_pos < m_text.size() && m_text[m_pos] == ']') {
                ++m_pos;
                out = items;
                return true;
            }
            return fail("expected ',' or ']'");
        }
    }

    bool number(PObject& out) {
        size_t start = m_pos;
        bool negative = m_text[m_pos] == '-';
        if (negative) ++m_pos;
        while (m_pos < m_text.size() && m_text[m_pos] >= '0' && m_text[m_pos] <= '9') ++m_pos;
        std::string digits = m_text.substr(start + (negative ? 1 : 0), m_pos - start - negative);
        if (digits.empty()) return fail("expected digits");
        if (m_pos < m_text.size() &&
            (m_text[m_pos] == '.' || m_text[m_pos] == 'e' || m_text[m_pos] == 'E'))
            return fail("only integers are supported");
        errno = 0;
        unsigned long long v = std::strtoull(digits.c_str(), nullptr, 10);
        if (errno == ERANGE) return fail("integer out of range");
        out = negative ? static_cast<uint64_t>(0) - static_cast<uint64_t>(v)
                       : static_cast<uint64_t>(v);
        return true;
    }

    static void put_utf8(std::string& s, uint32_t cp) {
        if (cp < 0x80) {
            s += static_cast<char>(cp);
        } else if (cp < 0x800) {
            s += static_cast<char>(0xC0 | (cp >> 6));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            s += static_cast<char>(0xE0 | (cp >> 12));
            s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            s += static_cast<char>(0xF0 | (cp >> 18));
            s += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }

    bool hex4(uint32_t& out) {
        if (m_pos + 4 > m_text.size()) return fail("short \\u escape");
        out = 0;
        for (int i = 0; i < 4; ++i) {
            char c = m_text[m_pos++];
            out <<= 4;
            if (c >= '0' && c <= '9')
                out |= static_cast<uint32_t>(c - '0');
            else if (c >= 'a' && c <= 'f')
                out |= static_cast<uint32_t>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                out |= static_cast<uint32_t>(c - 'A' + 10);
            else
                return fail("bad \\u escape");
        }
        return true;
    }

    bool escape(std::string& s) {
        if (m_pos >= m_text.size()) return fail("unterminated string");
        char c = m_text[m_pos++];
        switch (c) {
            case '"':
            case '\\':
            case '/':
                s += c;
                return true;
            case 'b':
                s += '\b';
                return true;
            case 'f':
                s += '\f';
                return true;
            case 'n':
                s += '\n';
                return true;
            case 'r':
                s += '\r';
                return true;
            case 't':
                s += '\t';
                return true;
            case 'u':
                break;
            default:
                return fail("bad escape");
        }
        uint32_t cp = 0;
        if (!hex4(cp)) return false;
        if (cp >= 0xD800 && cp < 0xDC00) {
            uint32_t low = 0;
            if (!literal("\\u") || !hex4(low) || low < 0xDC00 || low > 0xDFFF)
                return fail("unpaired surrogate");
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
        } else if (cp >= 0xDC00 && cp < 0xE000) {
            return fail("unpaired surrogate");
        }
        put_utf8(s, cp);
        return true;
    }

    bool string(std::string& s) {
        ++m_pos;
        while (m_pos < m_text.size()) {
            char c = m_text[m_pos++];
            if (c == '"') return true;
            if (c == '\\') {
                if (!escape(s)) return false;
            } else {
                s += c;
            }
        }
        return fail("unterminated string");
    }

    const std::string& m_text;
    size_t m_pos = 0;
    std::string m_error;
};

bool all_digits(const std::string& s) {
    if (s.empty()) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

}  // namespace

bool parse_json_value(const std::string& text, PObject& out, std::string& error) {
    return JsonReader(text).read(out, error);
}

bool add_request_arg(const std::string& word, PObject& request, std::string& error) {
    size_t eq = word.find('=');
    if (eq == std::string::npos) {
        error = "'" + word + "' is not key=value or key:=JSON";
        return false;
    }
    bool json = eq > 0 && word[eq - 1] == ':';
    std::string key = word.substr(0, json ? eq - 1 : eq);
    std::string value = word.substr(eq + 1);
    if (key.empty()) {
        error = "'" + word + "' has no key";
        return false;
    }
    PObject& slot = request[key.c_str()];
    if (json) {
        std::string why;
        if (parse_json_value(value, slot, why)) return true;
        error = "'" + key + "': " + why;
        return false;
    }
    if (all_digits(value)) {
        errno = 0;
        unsigned long long v = std::strtoull(value.c_str(), nullptr, 10);
        if (errno != ERANGE) {
            slot = static_cast<uint64_t>(v);
            return true;
        }
    }
    slot = value.c_str();
    return true;
}

bool parse_port(const std::string& text, int& port) {
    char* end = nullptr;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || v < 1 || v > 65535) return false;
    port = static_cast<int>(v);
    return true;
}
