// json-out.h: PObject values written as JSON for scripts that read the controller's
// output (watch --json, status --json, add --json).
#pragma once

#include <string>

#include "foundation/object.h"

// Appends `obj` as compact JSON. Integers are unsigned, except the members whose key is
// "error_type", "code" or "connection_id", which travel as 64-bit two's complement and
// are written signed. A binary is written as {"binary_length": N}.
void append_json(std::string& out, const PObject& obj, bool is_signed = false);
