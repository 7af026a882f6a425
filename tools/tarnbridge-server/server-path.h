// server-path.h: the one spelling of paths inside a view. Every path the server stores
// is "/" for the view's root or "/a/b": a leading "/", no trailing "/", no empty, "." or
// ".." component, no backslash, no NUL. Used by every request handler (client paths are
// normalised here before anything else) and by the admin commands.
#pragma once

#include <string>

namespace server_path {

// Turns a client's path ("", "/", "docs/a.txt", "/docs//a.txt/") into the stored form.
// Returns false, leaving `out` alone, for a path with a ".", ".." or backslash
// component, a NUL byte, or a drive prefix ("C:") in front.
bool Normalize(const std::string& in, std::string& out);

// "/a/b" -> "/a"; "/a" -> "/"; "/" -> "/".
std::string Parent(const std::string& path);
// "/a/b" -> "b"; "/" -> "".
std::string BaseName(const std::string& path);
// True when `path` is `root` or lies below it; every path lies below "/".
bool IsWithin(const std::string& path, const std::string& root);
// `path` relative to `root`, with a leading "/": ("/d/a", "/d") -> "/a"; equal -> "/".
// `path` must lie within `root`.
std::string Relative(const std::string& path, const std::string& root);
// The bounds of the strict descendants of `dir` in byte order: every descendant p has
// low < p < high ("/d/" and "/d0"; for the root "/" and "0").
std::string DescendantLow(const std::string& dir);
std::string DescendantHigh(const std::string& dir);

}  // namespace server_path
