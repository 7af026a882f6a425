// config.h: the key-value file grammar shared by the daemon's configuration file
// and the log level file ("key = value  # comment" lines). Used by Settings and Logger.
#pragma once

#include <map>

#include "foundation/ustring.h"

namespace Config {

using map_type = std::map<ustring, ustring>;

// Parses the file at `path` into `out` (cleared first). 0 on success, -1 when the path is
// empty, the file can't be opened, or any line breaks the grammar; on failure `out` is
// left empty, as if nothing had been read. An empty file is valid.
int read(const ustring& path, map_type& out);

// Parses the text of a whole file; the same rules and results as read().
int parse(const char* text, size_t len, map_type& out);

// A decimal number read as a text stream would: anything not numeric gives 0.
int get_int(const ustring& value);

}  // namespace Config
