// filter-schema.h: the parser schema of filter files, version 1.0: which sections and keys
// a filter file may hold and where each lands in a Filter. Used by filter_read.
#pragma once

#include "filter/schema.h"

const schema_parser* filter_schema();
