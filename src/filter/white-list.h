// white-list.h: the white list of a session, the file extensions that may be synchronised.
// Plain data and free functions, no locks; WhiteListCpp wraps them for the daemon.
#pragma once

#include "filter/parser.h"
#include "filter/value-type.h"

struct WhiteListVersionSection {
    int major;
    int minor;
};

struct WhiteListFileSection {
    value_type_string_set white_ext;
};

struct WhiteList {
    WhiteListVersionSection Version;
    WhiteListFileSection File;
};

// An empty list, which passes nothing. 0, or -1 when out of memory.
int white_list_init(WhiteList* list);
// Frees the list and zeroes it, version included.
void white_list_destroy(WhiteList* list);
// Parses the file at `path` into an initialised list, with the same acceptance rule as
// filter_read. 0, or -1 with the list destroyed; `report`, if given, says why.
int white_list_read(WhiteList* list, const char* path, parse_report* report = nullptr);
// 0 when the extension of `name` (after the last '.' that isn't its first character, else
// empty) is listed, ignoring ASCII case, or the list holds "*". -1 for a null or empty
// name, for an empty list, and for an extension not listed.
int white_list_test(const WhiteList* list, const char* name);
