// ustring.h: the one string type of the system. UTF-8 bytes are the master copy;
// a UTF-16 twin is made on demand for code that wants wide text. Used everywhere:
// wire, databases, paths, logs. Positions and lengths are always in UTF-8 bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

// The system's wide character: UTF-16 code units, as ICU spells them.
using uchar16 = char16_t;

class ustring {
  public:
    enum normalization_form { NFC = 0, NFD = 1 };
    static constexpr size_t npos = static_cast<size_t>(-1);

    ustring();
    ustring(const char* s);
    ustring(const char* s, size_t n);
    ustring(const uchar16* w);
    ustring(const uchar16* w, size_t n);
    ustring(const std::string& s, size_t pos = 0, size_t n = npos);
    ustring(const ustring& other);
    ustring(const ustring& other, size_t pos, size_t n = npos);
    ustring(ustring&& other) noexcept;
    ustring(size_t count, char c);
    ustring(size_t count, uchar16 c);
    ~ustring();

    ustring& operator=(const ustring& other);
    ustring& operator=(ustring&& other) noexcept;
    ustring& operator=(const char* s) { return assign(s); }
    ustring& operator=(const uchar16* w) { return assign(w); }
    ustring& operator=(const std::string& s) { return assign(s); }
    ustring& operator=(char c) { return assign(1, c); }

    ustring& assign(const char* s);
    ustring& assign(const char* s, size_t n);
    ustring& assign(const uchar16* w);
    ustring& assign(const uchar16* w, size_t n);
    ustring& assign(const std::string& s, size_t pos = 0, size_t n = npos);
    ustring& assign(const ustring& other);
    ustring& assign(const ustring& other, size_t pos, size_t n = npos);
    ustring& assign(size_t count, char c);
    ustring& assign(size_t count, uchar16 c);

    ustring& append(const char* s);
    ustring& append(const char* s, size_t n);
    ustring& append(const uchar16* w);
    ustring& append(const uchar16* w, size_t n);
    ustring& append(const std::string& s, size_t pos = 0, size_t n = npos);
    ustring& append(const ustring& other);
    ustring& append(const ustring& other, size_t pos, size_t n = npos);
    ustring& append(size_t count, char c);
    ustring& append(size_t count, uchar16 c);

    ustring& operator+=(const char* s) { return append(s); }
    ustring& operator+=(const uchar16* w) { return append(w); }
    ustring& operator+=(const std::string& s) { return append(s); }
    ustring& operator+=(const ustring& s) { return append(s); }
    ustring& operator+=(char c) { return append(1, c); }
    ustring& operator+=(uchar16 c) { return append(1, c); }

    // Wide form, converted on first use. Ill-formed UTF-8 has an empty wide form.
    // Not thread-safe even though const: a shared string must be copied first.
    const uchar16* c_str() const;
    const uchar16* c_str_utf16() const { return c_str(); }
    // The UTF-8 bytes; never converts. This is what file system calls and logs take.
    const char* c_str_utf8() const { return m_data; }
    std::string str() const { return std::string(m_data, m_data_len); }

    bool empty() const { return m_data_len == 0; }
    size_t length() const { return m_data_len; }
    size_t size() const { return m_data_len; }
    void clear();
    void swap(ustring& other) noexcept;
    char operator[](size_t i) const { return m_data[i]; }

    // Throws std::out_of_range("substr") when pos > length().
    ustring substr(size_t pos = 0, size_t n = npos) const;

    // Byte searches; each gives npos (-1) when nothing is found or start >= length().
    size_t find(const char* s, size_t start = 0) const;
    size_t find(const ustring& s, size_t start = 0) const { return find(s.m_data, start); }
    size_t find(const std::string& s, size_t start = 0) const { return find(s.c_str(), start); }
    size_t find(char c, size_t start = 0) const;
    // A start at or past the end (or npos) begins at the last byte.
    size_t rfind(const char* s, size_t start = npos) const;
    size_t rfind(const ustring& s, size_t start = npos) const { return rfind(s.m_data, start); }
    size_t rfind(const std::string& s, size_t start = npos) const {
        return rfind(s.c_str(), start);
    }
    size_t rfind(char c, size_t start = npos) const;
    size_t find_first_of(const char* set, size_t start = 0) const;
    size_t find_first_of(const ustring& set, size_t start = 0) const {
        return find_first_of(set.m_data, start);
    }
    size_t find_first_of(const std::string& set, size_t start = 0) const {
        return find_first_of(set.c_str(), start);
    }
    size_t find_first_of(char c, size_t start = 0) const;
    size_t find_first_not_of(const char* set, size_t start = 0) const;
    size_t find_first_not_of(const ustring& set, size_t start = 0) const {
        return find_first_not_of(set.m_data, start);
    }
    size_t find_first_not_of(const std::string& set, size_t start = 0) const {
        return find_first_not_of(set.c_str(), start);
    }
    size_t find_first_not_of(char c, size_t start = 0) const;
    size_t find_last_of(const char* set, size_t start = npos) const;
    size_t find_last_of(const ustring& set, size_t start = npos) const {
        return find_last_of(set.m_data, start);
    }
    size_t find_last_of(const std::string& set, size_t start = npos) const {
        return find_last_of(set.c_str(), start);
    }
    size_t find_last_of(char c, size_t start = npos) const;
    size_t find_last_not_of(const char* set, size_t start = npos) const;
    size_t find_last_not_of(const ustring& set, size_t start = npos) const {
        return find_last_not_of(set.m_data, start);
    }
    size_t find_last_not_of(const std::string& set, size_t start = npos) const {
        return find_last_not_of(set.c_str(), start);
    }
    size_t find_last_not_of(char c, size_t start = npos) const;

    // Strip the bytes of `set` in place.
    ustring& ltrim(const char* set = " \t\r\n");
    ustring& rtrim(const char* set = " \t\r\n");
    ustring& trim(const char* set = " \t\r\n");

    // Swaps bytes in place and deliberately leaves any wide form as it stood.
    ustring& replace(char from, char to);

    // Byte order (unsigned), i.e. code point order; ignore_case folds ASCII letters only.
    int compare(const ustring& other) const { return compare(*this, other, false); }
    int compare(const ustring& other, size_t n) const;
    static int compare(const ustring& a, const ustring& b, bool ignore_case);

    // NFC or NFD of the text; empty on an ICU failure.
    ustring normalize(normalization_form form) const { return normalize(*this, form); }
    static ustring normalize(const ustring& text, normalization_form form);
    // False only for ill-formed UTF-8.
    static bool is_valid(const ustring& text);

  private:
    void init();
    void realloc_data(size_t cap);
    void realloc_wdata(size_t cap);
    void set_bytes(const char* s, size_t n);
    void add_bytes(const char* s, size_t n);
    void set_wide(const uchar16* w, size_t n);
    int convert_from_data() const;
    int convert_from_wdata();

    char* m_data = nullptr;
    size_t m_data_len = 0;
    size_t m_data_cap = 0;
    mutable uchar16* m_wdata = nullptr;
    mutable size_t m_wdata_len = 0;
    mutable size_t m_wdata_cap = 0;
};

ustring operator+(const ustring& a, const ustring& b);
ustring operator+(const ustring& a, const char* b);
ustring operator+(const char* a, const ustring& b);
ustring operator+(const ustring& a, char b);

inline bool operator<(const ustring& a, const ustring& b) {
    return ustring::compare(a, b, false) < 0;
}
inline bool operator>(const ustring& a, const ustring& b) {
    return ustring::compare(a, b, false) > 0;
}
inline bool operator<=(const ustring& a, const ustring& b) {
    return ustring::compare(a, b, false) <= 0;
}
inline bool operator>=(const ustring& a, const ustring& b) {
    return ustring::compare(a, b, false) >= 0;
}
inline bool operator==(const ustring& a, const ustring& b) {
    return ustring::compare(a, b, false) == 0;
}
inline bool operator!=(const ustring& a, const ustring& b) {
    return ustring::compare(a, b, false) != 0;
}

std::ostream& operator<<(std::ostream& os, const ustring& s);
std::istream& operator>>(std::istream& is, ustring& s);
