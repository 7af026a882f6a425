// request-keys.h: reading the keys of a control request. The controlling process is
// another program, so a key may be missing or hold any kind of value; the daemon's
// commands and the connection request reader test the kinds here before they read a
// value, and refuse what does not fit.
#pragma once

#include "foundation/object.h"

enum class KeyKind {
    INTEGER,  // an integer (flags travel as 0 and 1)
    TEXT,     // a string that is not empty
    PORT,     // an integer from 1 to 65535
};

// True when `key` is present and of `kind`.
bool HasKey(const PObject& request, const char* key, KeyKind kind);
// True when `key` is absent, or present and of `kind`.
bool OptionalKey(const PObject& request, const char* key, KeyKind kind);
