// ustring.cpp: buffers, ICU conversions and byte searches of ustring.
#include "foundation/ustring.h"

#include <unicode/unorm2.h>
#include <unicode/ustring.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <new>
#include <ostream>
#include <stdexcept>

namespace {

size_t bounded_len(const char* s, size_t n) {
    if (s == nullptr) return 0;
    const void* end = std::memchr(s, 0, n);
    return end ? static_cast<size_t>(static_cast<const char*>(end) - s) : n;
}

size_t bounded_wlen(const uchar16* w, size_t n) {
    size_t len = 0;
    while (w != nullptr && len < n && w[len] != 0) ++len;
    return len;
}

// The capacity rule shared by both buffers: grow to exactly what is asked,
// shrink to exactly that when less than half is asked, else keep.
template <typename T>
void resize_buffer(T*& buf, size_t& cap, size_t want) {
    if (buf != nullptr && want <= cap && want * 2 >= cap) return;
    void* p = std::realloc(buf, want * sizeof(T));
    if (p == nullptr) throw std::bad_alloc();
    buf = static_cast<T*>(p);
    cap = want;
}

bool in_set(const char* set, char c) {
    return c != 0 && std::strchr(set, c) != nullptr;
}

}  // namespace

void ustring::init() {
    resize_buffer(m_data, m_data_cap, 4);
    resize_buffer(m_wdata, m_wdata_cap, 4);
    m_data[0] = 0;
    m_wdata[0] = 0;
    m_data_len = 0;
    m_wdata_len = 0;
}

void ustring::realloc_data(size_t cap) {
    resize_buffer(m_data, m_data_cap, cap);
}
void ustring::realloc_wdata(size_t cap) {
    resize_buffer(m_wdata, m_wdata_cap, cap);
}

ustring::ustring() {
    init();
}
ustring::ustring(const char* s) {
    init();
    assign(s);
}
ustring::ustring(const char* s, size_t n) {
    init();
    assign(s, n);
}
ustring::ustring(const uchar16* w) {
    init();
    assign(w);
}
ustring::ustring(const uchar16* w, size_t n) {
    init();
    assign(w, n);
}
ustring::ustring(const std::string& s, size_t pos, size_t n) {
    init();
    assign(s, pos, n);
}
ustring::ustring(const ustring& other) {
    init();
    assign(other);
}
ustring::ustring(const ustring& other, size_t pos, size_t n) {
    init();
    assign(other, pos, n);
}
ustring::ustring(size_t count, char c) {
    init();
    assign(count, c);
}
ustring::ustring(size_t count, uchar16 c) {
    init();
    assign(count, c);
}

ustring::ustring(ustring&& other) noexcept {
    init();
    swap(other);
}

ustring::~ustring() {
    std::free(m_data);
    std::free(m_wdata);
}

ustring& ustring::operator=(const ustring& other) {
    return assign(other);
}

ustring& ustring::operator=(ustring&& other) noexcept {
    swap(other);
    return *this;
}

void ustring::set_bytes(const char* s, size_t n) {
    m_data_len = 0;
    add_bytes(s, n);
}

void ustring::add_bytes(const char* s, size_t n) {
    // `s` may point into our own buffer, so copy through a temporary when it does.
    if (s >= m_data && s < m_data + m_data_cap) {
        std::string copy(s, n);
        add_bytes(copy.data(), copy.size());
        return;
    }
    realloc_data(m_data_len + n + 1);
    if (n > 0) std::memcpy(m_data + m_data_len, s, n);
    m_data_len += n;
    m_data[m_data_len] = 0;
    m_wdata_len = 0;
}

void ustring::set_wide(const uchar16* w, size_t n) {
    realloc_wdata(n + 1);
    if (n > 0) std::memcpy(m_wdata, w, n * sizeof(uchar16));
    m_wdata[n] = 0;
    m_wdata_len = n;
    convert_from_wdata();
}

ustring& ustring::assign(const char* s) {
    return assign(s, s ? std::strlen(s) : 0);
}
ustring& ustring::assign(const char* s, size_t n) {
    set_bytes(s, bounded_len(s, n));
    return *this;
}
ustring& ustring::assign(const uchar16* w) {
    return assign(w, npos);
}
ustring& ustring::assign(const uchar16* w, size_t n) {
    size_t len = bounded_wlen(w, n);
    if (w >= m_wdata && w < m_wdata + m_wdata_cap) {
        std::u16string copy(w, len);
        set_wide(copy.data(), copy.size());
    } else {
        set_wide(w, len);
    }
    return *this;
}
ustring& ustring::assign(const std::string& s, size_t pos, size_t n) {
    if (pos > s.size()) throw std::out_of_range("assign");
    return assign(s.c_str() + pos, std::min(n, s.size() - pos));
}
ustring& ustring::assign(const ustring& other) {
    if (this != &other) set_bytes(other.m_data, other.m_data_len);
    return *this;
}
ustring& ustring::assign(const ustring& other, size_t pos, size_t n) {
    if (pos > other.m_data_len) throw std::out_of_range("assign");
    return assign(other.m_data + pos, std::min(n, other.m_data_len - pos));
}
ustring& ustring::assign(size_t count, char c) {
    m_data_len = 0;
    return append(count, c);
}
ustring& ustring::assign(size_t count, uchar16 c) {
    return assign(std::u16string(count, c).c_str());
}

ustring& ustring::append(const char* s) {
    return append(s, s ? std::strlen(s) : 0);
}
ustring& ustring::append(const char* s, size_t n) {
    add_bytes(s, bounded_len(s, n));
    return *this;
}
ustring& ustring::append(const uchar16* w) {
    return append(ustring(w));
}
ustring& ustring::append(const uchar16* w, size_t n) {
    return append(ustring(w, n));
}
ustring& ustring::append(const std::string& s, size_t pos, size_t n) {
    if (pos > s.size()) throw std::out_of_range("append");
    return append(s.c_str() + pos, std::min(n, s.size() - pos));
}
ustring& ustring::append(const ustring& other) {
    add_bytes(other.m_data, other.m_data_len);
    return *this;
}
ustring& ustring::append(const ustring& other, size_t pos, size_t n) {
    if (pos > other.m_data_len) throw std::out_of_range("append");
    return append(other.m_data + pos, std::min(n, other.m_data_len - pos));
}
ustring& ustring::append(size_t count, char c) {
    if (c == 0) count = 0;
    realloc_data(m_data_len + count + 1);
    std::memset(m_data + m_data_len, c, count);
    m_data_len += count;
    m_data[m_data_len] = 0;
    m_wdata_len = 0;
    return *this;
}
ustring& ustring::append(size_t count, uchar16 c) {
    return append(ustring(count, c));
}

void ustring::clear() {
    set_bytes("", 0);
}

void ustring::swap(ustring& other) noexcept {
    std::swap(m_data, other.m_data);
    std::swap(m_data_len, other.m_data_len);
    std::swap(m_data_cap, other.m_data_cap);
    std::swap(m_wdata, other.m_wdata);
    std::swap(m_wdata_len, other.m_wdata_len);
    std::swap(m_wdata_cap, other.m_wdata_cap);
}

int ustring::convert_from_data() const {
    UErrorCode err = U_ZERO_ERROR;
    int32_t need = 0;
    u_strFromUTF8(nullptr, 0, &need, m_data, static_cast<int32_t>(m_data_len), &err);
    if (err == U_BUFFER_OVERFLOW_ERROR || err == U_STRING_NOT_TERMINATED_WARNING)
        err = U_ZERO_ERROR;
    if (U_SUCCESS(err)) {
        resize_buffer(m_wdata, m_wdata_cap, static_cast<size_t>(need) + 1);
        u_strFromUTF8(m_wdata, need + 1, &need, m_data, static_cast<int32_t>(m_data_len), &err);
    }
    if (err > U_ZERO_ERROR) {
        std::printf("Warning: u_strFromUTF8: error code %d at line %d\n", err, __LINE__);
        m_wdata[0] = 0;
        m_wdata_len = 0;
        return -1;
    }
    m_wdata_len = static_cast<size_t>(need);
    return 0;
}

int ustring::convert_from_wdata() {
    UErrorCode err = U_ZERO_ERROR;
    int32_t need = 0;
    u_strToUTF8(nullptr, 0, &need, m_wdata, static_cast<int32_t>(m_wdata_len), &err);
    if (err == U_BUFFER_OVERFLOW_ERROR || err == U_STRING_NOT_TERMINATED_WARNING)
        err = U_ZERO_ERROR;
    if (U_SUCCESS(err)) {
        realloc_data(static_cast<size_t>(need) + 1);
        u_strToUTF8(m_data, need + 1, &need, m_wdata, static_cast<int32_t>(m_wdata_len), &err);
    }
    if (err > U_ZERO_ERROR) {
        std::printf("Warning: u_strToUTF8: error code %d at line %d\n", err, __LINE__);
        m_data[0] = 0;
        m_data_len = 0;
        m_wdata[0] = 0;
        m_wdata_len = 0;
        return -1;
    }
    m_data_len = static_cast<size_t>(need);
    m_data[m_data_len] = 0;
    return 0;
}

const uchar16* ustring::c_str() const {
    if (m_wdata_len == 0 && m_data_len > 0) convert_from_data();
    if (m_wdata_len == 0) m_wdata[0] = 0;
    return m_wdata;
}

ustring ustring::substr(size_t pos, size_t n) const {
    if (pos > m_data_len) throw std::out_of_range("substr");
    return ustring(m_data + pos, std::min(n, m_data_len - pos));
}

size_t ustring::find(const char* s, size_t start) const {
    if (s == nullptr || start >= m_data_len) return npos;
    const char* hit = std::strstr(m_data + start, s);
    return hit ? static_cast<size_t>(hit - m_data) : npos;
}

size_t ustring::find(char c, size_t start) const {
    if (start >= m_data_len) return npos;
    const void* hit = std::memchr(m_data + start, c, m_data_len - start);
    return hit ? static_cast<size_t>(static_cast<const char*>(hit) - m_data) : npos;
}

size_t ustring::rfind(const char* s, size_t start) const {
    if (s == nullptr || m_data_len == 0) return npos;
    size_t n = std::strlen(s);
    if (n > m_data_len) return npos;
    size_t i = std::min(start >= m_data_len ? m_data_len - 1 : start, m_data_len - n);
    for (;; --i) {
        if (std::memcmp(m_data + i, s, n) == 0) return i;
        if (i == 0) return npos;
    }
}

size_t ustring::rfind(char c, size_t start) const {
    char s[2] = {c, 0};
    return rfind(s, start);
}

size_t ustring::find_first_of(const char* set, size_t start) const {
    for (size_t i = start; set && i < m_data_len; ++i)
        if (in_set(set, m_data[i])) return i;
    return npos;
}

size_t ustring::find_first_of(char c, size_t start) const {
    return find(c, start);
}

size_t ustring::find_first_not_of(const char* set, size_t start) const {
    for (size_t i = start; set && i < m_data_len; ++i)
        if (!in_set(set, m_data[i])) return i;
    return npos;
}

size_t ustring::find_first_not_of(char c, size_t start) const {
    char s[2] = {c, 0};
    return find_first_not_of(s, start);
}

size_t ustring::find_last_of(const char* set, size_t start) const {
    if (set == nullptr || m_data_len == 0) return npos;
    for (size_t i = start >= m_data_len ? m_data_len - 1 : start;; --i) {
        if (in_set(set, m_data[i])) return i;
        if (i == 0) return npos;
    }
}

size_t ustring::find_last_of(char c, size_t start) const {
    char s[2] = {c, 0};
    return find_last_of(s, start);
}

size_t ustring::find_last_not_of(const char* set, size_t start) const {
    if (set == nullptr || m_data_len == 0) return npos;
    for (size_t i = start >= m_data_len ? m_data_len - 1 : start;; --i) {
        if (!in_set(set, m_data[i])) return i;
        if (i == 0) return npos;
    }
}

size_t ustring::find_last_not_of(char c, size_t start) const {
    char s[2] = {c, 0};
    return find_last_not_of(s, start);
}

ustring& ustring::ltrim(const char* set) {
    size_t first = find_first_not_of(set);
    if (first == npos) return assign("");
    if (first > 0)
        set_bytes(std::string(m_data + first, m_data_len - first).c_str(), m_data_len - first);
    return *this;
}

ustring& ustring::rtrim(const char* set) {
    size_t last = find_last_not_of(set);
    size_t keep = last == npos ? 0 : last + 1;
    if (keep == m_data_len) return *this;
    m_data_len = keep;
    m_data[keep] = 0;
    m_wdata_len = 0;
    return *this;
}

ustring& ustring::trim(const char* set) {
    return rtrim(set).ltrim(set);
}

ustring& ustring::replace(char from, char to) {
    for (size_t i = 0; i < m_data_len; ++i)
        if (m_data[i] == from) m_data[i] = to;
    return *this;
}

namespace {
unsigned char fold(unsigned char c, bool ignore_case) {
    return (ignore_case && c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

int compare_bytes(const char* a, const char* b, size_t n, bool ignore_case) {
    for (size_t i = 0; i < n; ++i) {
        unsigned char ca = fold(static_cast<unsigned char>(a[i]), ignore_case);
        unsigned char cb = fold(static_cast<unsigned char>(b[i]), ignore_case);
        if (ca != cb || ca == 0) return static_cast<int>(ca) - static_cast<int>(cb);
    }
    return 0;
}
}  // namespace

int ustring::compare(const ustring& other, size_t n) const {
    return compare_bytes(m_data, other.m_data, n, false);
}

int ustring::compare(const ustring& a, const ustring& b, bool ignore_case) {
    return compare_bytes(a.m_data, b.m_data, npos, ignore_case);
}

ustring ustring::normalize(const ustring& text, normalization_form form) {
    if (text.empty()) return ustring();
    const uchar16* src = text.c_str();
    int32_t src_len = static_cast<int32_t>(text.m_wdata_len);
    // unorm2 is ICU's current form of the old unorm_normalize with options 0.
    UErrorCode err = U_ZERO_ERROR;
    const UNormalizer2* norm =
        form == NFD ? unorm2_getNFDInstance(&err) : unorm2_getNFCInstance(&err);
    int32_t need = U_SUCCESS(err) ? unorm2_normalize(norm, src, src_len, nullptr, 0, &err) : 0;
    if (err == U_BUFFER_OVERFLOW_ERROR || err == U_STRING_NOT_TERMINATED_WARNING)
        err = U_ZERO_ERROR;
    std::u16string out(static_cast<size_t>(need > 0 ? need : 0) + 1, u'\0');
    if (U_SUCCESS(err)) need = unorm2_normalize(norm, src, src_len, out.data(), need + 1, &err);
    if (err > U_ZERO_ERROR) {
        std::printf("Warning: unorm_normalize: error code %d at line %d\n", err, __LINE__);
        return ustring();
    }
    return ustring(out.data(), static_cast<size_t>(need));
}

bool ustring::is_valid(const ustring& text) {
    if (text.empty()) return true;
    UErrorCode err = U_ZERO_ERROR;
    int32_t need = 0;
    u_strFromUTF8(nullptr, 0, &need, text.m_data, static_cast<int32_t>(text.m_data_len), &err);
    return err != U_INVALID_CHAR_FOUND;
}

ustring operator+(const ustring& a, const ustring& b) {
    return ustring(a).append(b);
}
ustring operator+(const ustring& a, const char* b) {
    return ustring(a).append(b);
}
ustring operator+(const char* a, const ustring& b) {
    return ustring(a).append(b);
}
ustring operator+(const ustring& a, char b) {
    return ustring(a).append(1, b);
}

std::ostream& operator<<(std::ostream& os, const ustring& s) {
    return os.write(s.c_str_utf8(), s.size());
}

std::istream& operator>>(std::istream& is, ustring& s) {
    std::string word;
    is >> word;
    s.assign(word);
    return is;
}
