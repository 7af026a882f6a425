// white-list-schema.h: the parser schema of white list files, version 1.0: a Version
// section and a File section with white_ext. Used by white_list_read.
#pragma once

#include "filter/schema.h"

const schema_parser* white_list_schema();
