// object.cpp: ownership, access rules and the text form of PObject.
#include "foundation/object.h"

#include <cinttypes>
#include <cstdio>
#include <iterator>
#include <stdexcept>

namespace {
const PObject::map_type kEmptyMap;
const PObject::array_type kEmptyArray;
const PObject::binary_type kEmptyBinary;
const PObject kNull{};
}  // namespace

PObject::PObject(const PObject& other) {
    *this = other;
}
PObject::PObject(const char* s) {
    *this = s;
}
PObject::PObject(const ustring& s) {
    *this = s;
}
PObject::PObject(uint64_t v) {
    *this = v;
}

void PObject::clear() {
    switch (m_type) {
        case TYPE_ARRAY:
            delete array_ptr();
            break;
        case TYPE_MAP:
            delete map_ptr();
            break;
        case TYPE_STRING:
            delete string_ptr();
            break;
        case TYPE_BINARY:
            delete binary_ptr();
            break;
        default:
            break;
    }
    m_type = TYPE_NULL;
    m_ptr = nullptr;
}

void PObject::reset(int type) {
    clear();
    switch (type) {
        case TYPE_ARRAY:
            m_ptr = new array_type();
            break;
        case TYPE_MAP:
            m_ptr = new map_type();
            break;
        case TYPE_STRING:
            m_ptr = new ustring();
            break;
        case TYPE_BINARY:
            m_ptr = new binary_type();
            break;
        case TYPE_INTEGER:
            m_int = 0;
            break;
        default:
            break;
    }
    m_type = type;
}

void PObject::swap(PObject& other) noexcept {
    std::swap(m_type, other.m_type);
    std::swap(m_ptr, other.m_ptr);
}

PObject& PObject::operator=(const PObject& other) {
    if (this == &other) return *this;
    // Copy first: `other` may live inside this object's own tree.
    PObject copy;
    switch (other.m_type) {
        case TYPE_ARRAY:
            copy = *other.array_ptr();
            break;
        case TYPE_MAP:
            copy = *other.map_ptr();
            break;
        case TYPE_STRING:
            copy = *other.string_ptr();
            break;
        case TYPE_BINARY:
            copy = *other.binary_ptr();
            break;
        case TYPE_INTEGER:
            copy = other.m_int;
            break;
        default:
            break;
    }
    swap(copy);
    return *this;
}

PObject& PObject::operator=(PObject&& other) noexcept {
    if (this != &other) {
        PObject tmp;
        tmp.swap(other);
        swap(tmp);
    }
    return *this;
}

PObject& PObject::operator=(const ustring& s) {
    ustring copy(s);
    reset(TYPE_STRING);
    string_ptr()->swap(copy);
    return *this;
}

PObject& PObject::operator=(const char* s) {
    return *this = ustring(s);
}

PObject& PObject::operator=(uint64_t v) {
    reset(TYPE_INTEGER);
    m_int = v;
    return *this;
}

PObject& PObject::operator=(const map_type& m) {
    map_type copy(m);
    reset(TYPE_MAP);
    map_ptr()->swap(copy);
    return *this;
}

PObject& PObject::operator=(const array_type& a) {
    array_type copy(a);
    reset(TYPE_ARRAY);
    array_ptr()->swap(copy);
    return *this;
}

PObject& PObject::operator=(const binary_type& b) {
    binary_type copy(b);
    reset(TYPE_BINARY);
    *binary_ptr() = std::move(copy);
    return *this;
}

bool PObject::hasMember(const ustring& key) const {
    return isMap() && map_ptr()->count(key) > 0;
}

bool PObject::isEmpty() const {
    switch (m_type) {
        case TYPE_NULL:
            return true;
        case TYPE_INTEGER:
            return false;
        case TYPE_STRING:
            return string_ptr()->empty();
        case TYPE_MAP:
            return map_ptr()->empty();
        case TYPE_ARRAY:
            return array_ptr()->empty();
        case TYPE_BINARY:
            return binary_ptr()->empty();
        default:
            return true;
    }
}

bool PObject::asBool() const {
    return isInteger() ? m_int != 0 : !isEmpty();
}

ustring PObject::asString() const {
    if (isString()) return *string_ptr();
    if (!isInteger()) return ustring();
    // Only the low 32 bits, as readers of this text have always seen it.
    char buf[16];
    std::snprintf(buf, sizeof buf, "%u", static_cast<unsigned>(static_cast<uint32_t>(m_int)));
    return ustring(buf);
}

const PObject::map_type& PObject::asMap() const {
    return isMap() ? *map_ptr() : kEmptyMap;
}
const PObject::array_type& PObject::asArray() const {
    return isArray() ? *array_ptr() : kEmptyArray;
}
const PObject::binary_type& PObject::asBinary() const {
    return isBinary() ? *binary_ptr() : kEmptyBinary;
}

PObject::map_type& PObject::asMap() {
    if (!isMap()) reset(TYPE_MAP);
    return *map_ptr();
}

PObject::array_type& PObject::asArray() {
    if (!isArray()) reset(TYPE_ARRAY);
    return *array_ptr();
}

PObject::binary_type& PObject::asBinary() {
    if (!isBinary()) reset(TYPE_BINARY);
    return *binary_ptr();
}

const PObject& PObject::operator[](const ustring& key) const {
    if (!isMap()) return kNull;
    auto it = map_ptr()->find(key);
    return it == map_ptr()->end() ? kNull : it->second;
}

PObject& PObject::operator[](const ustring& key) {
    return asMap()[key];
}

// A negative index walks back from the first member, which is always out of range.
const PObject& PObject::operator[](int index) const {
    if (index < 0) return kNull;
    size_t i = static_cast<size_t>(index);
    if (isArray()) return i < array_ptr()->size() ? (*array_ptr())[i] : kNull;
    if (!isMap() || i >= map_ptr()->size()) return kNull;
    return std::next(map_ptr()->begin(), index)->second;
}

PObject& PObject::operator[](int index) {
    if (!isMap() || index < 0 || static_cast<size_t>(index) >= map_ptr()->size())
        throw std::out_of_range("out_of_range: PObject::operator[]");
    return std::next(map_ptr()->begin(), index)->second;
}

namespace {
void append_text(const PObject& o, ustring& out);

void append_uint(uint64_t v, ustring& out) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "%" PRIu64, v);
    out.append(buf);
}

void append_text(const PObject& o, ustring& out) {
    switch (o.type()) {
        case PObject::TYPE_INTEGER:
            append_uint(o.asUInt64(), out);
            return;
        case PObject::TYPE_STRING:
            out.append("\"").append(o.asString()).append("\"");
            return;
        case PObject::TYPE_ARRAY: {
            out.append("[");
            const char* sep = "";
            for (const PObject& e : o.asArray()) {
                out.append(sep);
                append_text(e, out);
                sep = ", ";
            }
            out.append("]");
            return;
        }
        case PObject::TYPE_MAP: {
            out.append("{");
            const char* sep = "";
            for (const auto& [key, value] : o.asMap()) {
                out.append(sep).append("\"").append(key).append("\": ");
                append_text(value, out);
                sep = ", ";
            }
            out.append("}");
            return;
        }
        case PObject::TYPE_BINARY: {
            const PObject::binary_type& b = o.asBinary();
            out.append("{offset: ");
            append_uint(b.offset, out);
            out.append(", length: ");
            append_uint(b.length, out);
            out.append(", path: \"").append(b.path).append("\"}");
            return;
        }
        default:
            out.append("null");
            return;
    }
}
}  // namespace

ustring PObject::toString() const {
    ustring out;
    append_text(*this, out);
    return out;
}
