// tmp-name-gen.cpp: RC4-based temporary names.
#include "foundation/tmp-name-gen.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "platform/system.h"

namespace {
const char kAlphabet[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";
}

std::mutex TmpNameGen::m_lock;

TmpNameGen& TmpNameGen::getInstance() {
    static TmpNameGen instance;
    return instance;
}

TmpNameGen::TmpNameGen() : m_s_box{}, m_key{}, m_buffer{} {
    get_key(m_key, sizeof m_key);
    rc4_init(m_s_box, m_key);
}

void TmpNameGen::get_key(uint8_t* key, size_t size) {
    std::memset(key, 0, size);
    std::snprintf(reinterpret_cast<char*>(key), size, "%" PRIu64, platform::monotonic_ns());
}

void TmpNameGen::rc4_init(uint8_t* s_box, uint8_t* key) {
    if (key[0] == 0) {
        std::srand(static_cast<unsigned>(std::time(nullptr)));
        for (int i = 0; i < 256; ++i) key[i] = static_cast<uint8_t>(std::rand());
    }
    for (int i = 0; i < 256; ++i) s_box[i] = static_cast<uint8_t>(i);
    uint8_t j = 0;
    for (int i = 0; i < 256; ++i) {
        j = static_cast<uint8_t>(j + s_box[i] + key[i]);
        std::swap(s_box[i], s_box[j]);
    }
}

void TmpNameGen::rc4_randomize(uint8_t* s_box, uint8_t* out, size_t length) {
    uint8_t i = 0;
    uint8_t j = 0;
    for (size_t n = 0; n < length; ++n) {
        i = static_cast<uint8_t>(i + 1);
        j = static_cast<uint8_t>(j + s_box[i]);
        std::swap(s_box[i], s_box[j]);
        out[n] = s_box[static_cast<uint8_t>(s_box[i] + s_box[j])];
    }
}

ustring TmpNameGen::getTmpName(const ustring& prefix) {
    TmpNameGen& gen = getInstance();
    uint64_t bits = 0;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        rc4_randomize(gen.m_s_box, gen.m_buffer, sizeof gen.m_buffer);
        for (uint8_t b : gen.m_buffer) bits = (bits << 8) | b;
    }
    char name[9] = {};
    for (int k = 0; k < 8; ++k) name[k] = kAlphabet[(bits >> (42 - 6 * k)) & 0x3f];
    return prefix + "/" + name;
}
