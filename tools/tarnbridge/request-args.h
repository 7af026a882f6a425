// request-args.h: turns the controller's command-line words into a control request.
// "key=value" gives an integer when the value is all digits (and fits 64 bits), else a
// string; "key:=JSON" gives any value written as JSON (maps, arrays, strings, integers,
// true and false as 1 and 0, null).
#pragma once

#include <string>

#include "foundation/object.h"

// Adds one word to the map `request`. true, or false with a message in `error`.
bool add_request_arg(const std::string& word, PObject& request, std::string& error);

// Parses a whole JSON text into `out`. true, or false with a message in `error`.
// Numbers must be integers; a negative one is stored as its 64-bit two's complement.
bool parse_json_value(const std::string& text, PObject& out, std::string& error);

// Reads a TCP port number (1 to 65535) given on the command line. true, or false when
// the text is not exactly such a number.
bool parse_port(const std::string& text, int& port);
