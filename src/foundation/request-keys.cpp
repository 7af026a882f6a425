// request-keys.cpp: the kinds of control request values.
#include "foundation/request-keys.h"

bool HasKey(const PObject& request, const char* key, KeyKind kind) {
    const PObject& value = request[key];
    switch (kind) {
        case KeyKind::INTEGER:
            return value.isInteger();
        case KeyKind::TEXT:
            return value.isString() && !value.asString().empty();
        case KeyKind::PORT:
            return value.isInteger() && value.asUInt64() >= 1 && value.asUInt64() <= 65535;
    }
    return false;
}

bool OptionalKey(const PObject& request, const char* key, KeyKind kind) {
    return !request.hasMember(key) || HasKey(request, key, kind);
}
