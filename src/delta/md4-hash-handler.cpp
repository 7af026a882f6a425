#include "delta/md4-hash-handler.h"

int MD4HashHandler::begin() {
    return MD4_Init(&mdfour) == 1 ? 0 : -1;
}

int MD4HashHandler::update(const void* buffer, size_t length) {
    return MD4_Update(&mdfour, buffer, length) == 1 ? 0 : -1;
}

int MD4HashHandler::end() {
    MD4_Final(result, &mdfour);
    if (result_string != nullptr) *result_string = getResult();
    return 0;
}

ustring MD4HashHandler::getResult() const {
    static const char digits[] = "0123456789abcdef";
    char hex[32];
    for (int i = 0; i < 16; ++i) {
        hex[2 * i] = digits[result[i] >> 4];
        hex[2 * i + 1] = digits[result[i] & 0x0F];
    }
    return ustring(hex, sizeof hex);
}
