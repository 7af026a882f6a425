// sql-escape.h: turning user paths into SQL text that matches them literally. The @ZEPH
// template language fills LIKE patterns (used by the file status database for readers
// of other processes); GlobLiteral does the same for GLOB patterns (event and filter DBs).
#pragma once

#include <cstdarg>
#include <memory>
#include <string>

// Fills a statement template. At each "@" one of these words is looked for, in order:
//   @ZEPH:VAR    const char*  the text with each "'" doubled (null counts as empty)
//   @ZEPH:LVAR   const char*  the same, then "\", "%" and "_" each preceded by "\";
//                             the closing quote of that literal gets " escape '\'"
//   @ZEPH:INT    int          "%d"
//   @ZEPH:LLINT  int64_t      "%lld"
//   @ZEPH:NEVAR  const char*  the text as it stands, unquoted
// Any other "@" is copied. The template is not a printf format: "%%" stays "%%", which
// a LIKE reads as two "%" meaning what one does. Returns the statement, owned by the
// caller, or null for a null template.
std::unique_ptr<char[]> ZEPHDBEscapeStringEX3(const char* tmpl, ...);
std::unique_ptr<char[]> SQLITEEscapeStringEX3(const char* tmpl, va_list args);

// `text` with the GLOB metacharacters "*", "?" and "[" each enclosed in brackets, so
// that "path GLOB '<result>/*'" (after %q quoting) matches `text` itself literally.
std::string GlobLiteral(const std::string& text);
