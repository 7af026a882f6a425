// object.h: PObject, the deep-copied variant that is the unit of every request
// and reply (control socket, server protocol, notifications). Reads never fail:
// a missing member or a wrong-kind read gives 0, empty or the shared null.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "foundation/ustring.h"

class PObject {
  public:
    enum Type {
        TYPE_NULL = 0,
        TYPE_ARRAY = 1,
        TYPE_MAP = 2,
        TYPE_INTEGER = 3,
        TYPE_STRING = 4,
        TYPE_BINARY = 5,
    };

    // A stretch of a file, not bytes in memory: how big payloads travel.
    struct binary_type {
        uint64_t offset = 0;  // where the stretch begins in the file
        uint64_t length = 0;  // bytes to send; after receiving, the final file length
        ustring path;         // the file; empty means none

        bool empty() const { return path.empty(); }
        void clear() {
            offset = 0;
            length = 0;
            path.clear();
        }
    };

    using map_type = std::map<ustring, PObject>;
    using array_type = std::vector<PObject>;

    PObject() = default;
    PObject(const PObject& other);
    PObject(PObject&& other) noexcept { swap(other); }
    PObject(const char* s);
    PObject(const ustring& s);
    PObject(uint64_t v);
    ~PObject() { clear(); }

    PObject& operator=(const PObject& other);
    PObject& operator=(PObject&& other) noexcept;
    PObject& operator=(const ustring& s);
    PObject& operator=(const char* s);
    PObject& operator=(uint64_t v);
    PObject& operator=(int64_t v) { return *this = static_cast<uint64_t>(v); }
    PObject& operator=(int32_t v) { return *this = static_cast<uint64_t>(static_cast<int64_t>(v)); }
    PObject& operator=(uint32_t v) { return *this = static_cast<uint64_t>(v); }
    PObject& operator=(bool v) { return *this = static_cast<uint64_t>(v ? 1 : 0); }
    PObject& operator=(const map_type& m);
    PObject& operator=(const array_type& a);
    PObject& operator=(const binary_type& b);

    int type() const { return m_type; }
    bool isNull() const { return m_type == TYPE_NULL; }
    bool isArray() const { return m_type == TYPE_ARRAY; }
    bool isMap() const { return m_type == TYPE_MAP; }
    bool isInteger() const { return m_type == TYPE_INTEGER; }
    bool isString() const { return m_type == TYPE_STRING; }
    bool isBinary() const { return m_type == TYPE_BINARY; }
    bool isContainer() const { return isArray() || isMap(); }
    bool isPrimitive() const { return isInteger() || isString() || isBinary(); }
    bool hasMember(const ustring& key) const;
    bool isEmpty() const;

    // Integer: non-zero. Any other kind: not isEmpty(), so "false" is true.
    bool asBool() const;
    uint64_t asInteger() const { return asUInt64(); }
    uint64_t asUInt64() const { return isInteger() ? m_int : 0; }
    int64_t asInt64() const { return static_cast<int64_t>(asUInt64()); }
    uint32_t asUInt32() const { return static_cast<uint32_t>(asUInt64()); }
    int32_t asInt32() const { return static_cast<int32_t>(asUInt64()); }
    uint16_t asUInt16() const { return static_cast<uint16_t>(asUInt64()); }
    int16_t asInt16() const { return static_cast<int16_t>(asUInt64()); }
    uint8_t asUInt8() const { return static_cast<uint8_t>(asUInt64()); }
    int8_t asInt8() const { return static_cast<int8_t>(asUInt64()); }
    // A string's text; an integer's low 32 bits in decimal; anything else empty.
    ustring asString() const;

    // Const access gives the value or a shared empty one for another kind.
    const map_type& asMap() const;
    const array_type& asArray() const;
    const binary_type& asBinary() const;
    // Non-const access turns another kind into an empty value of this kind.
    map_type& asMap();
    array_type& asArray();
    binary_type& asBinary();

    // The member, or the shared null for a missing key or a non-map.
    const PObject& operator[](const ustring& key) const;
    const PObject& operator[](const char* key) const { return (*this)[ustring(key)]; }
    // Makes this a map if it isn't, inserting a null member when missing.
    PObject& operator[](const ustring& key);
    PObject& operator[](const char* key) { return (*this)[ustring(key)]; }
    // Array element, or the index-th map member in key order; negative indexes walk
    // back from the first member; out of range gives the shared null.
    const PObject& operator[](int index) const;
    // Only for maps; throws std::out_of_range otherwise or past the end.
    PObject& operator[](int index);

    void swap(PObject& other) noexcept;
    void clear();

    // The one text form of requests and replies in logs.
    ustring toString() const;

  private:
    void reset(int type);

    int m_type = TYPE_NULL;
    union {
        void* m_ptr = nullptr;
        uint64_t m_int;
    };
    map_type* map_ptr() const { return static_cast<map_type*>(m_ptr); }
    array_type* array_ptr() const { return static_cast<array_type*>(m_ptr); }
    ustring* string_ptr() const { return static_cast<ustring*>(m_ptr); }
    binary_type* binary_ptr() const { return static_cast<binary_type*>(m_ptr); }
};
