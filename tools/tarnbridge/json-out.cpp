// json-out.cpp: the JSON writer of the controller's output.
#include "json-out.h"

#include <cstdio>

namespace {

void append_json_string(std::string& out, const std::string& text) {
    out += '"';
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    out += '"';
}

// Error codes and connection ids are signed and travel as 64-bit two's complement;
// every other integer is unsigned.
bool is_signed_key(const ustring& key) {
    return key == ustring("error_type") || key == ustring("code") ||
           key == ustring("connection_id");
}

}  // namespace

void append_json(std::string& out, const PObject& obj, bool is_signed) {
    switch (obj.type()) {
        case PObject::TYPE_INTEGER:
            out += is_signed ? std::to_string(static_cast<long long>(obj.asInt64()))
                             : std::to_string(obj.asUInt64());
            break;
        case PObject::TYPE_STRING:
            append_json_string(out, obj.asString().str());
            break;
        case PObject::TYPE_BINARY:
            out += "{\"binary_length\":" + std::to_string(obj.asBinary().length) + "}";
            break;
        case PObject::TYPE_ARRAY: {
            out += '[';
            bool first = true;
            for (const PObject& item : obj.asArray()) {
                if (!first) out += ',';
                first = false;
                append_json(out, item);
            }
            out += ']';
            break;
        }
        case PObject::TYPE_MAP: {
            out += '{';
            bool first = true;
            for (const auto& [key, value] : obj.asMap()) {
                if (!first) out += ',';
                first = false;
                append_json_string(out, key.str());
                out += ':';
                append_json(out, value, is_signed_key(key));
            }
            out += '}';
            break;
        }
        default:
            out += "null";
    }
}
