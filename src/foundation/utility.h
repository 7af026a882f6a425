// utility.h: small helpers shared across the daemon: Base64, the scrambling of
// secret strings on the wire, conversions between narrow text and the native
// string, the machine's name, login splitting and a monotonic clock. Used by the
// transport (enciphered strings), the application start-up and the workers.
// Log lines use the category "utility_debug".
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/ustring.h"

// Size of the array SzBase64EncBuffer returns; output stops at this many characters
// (2304 input bytes), and one zero byte always follows.
constexpr size_t kBase64EncLimit = 3072;

// Standard Base64 (A-Z a-z 0-9 + /, "=" padding, no line breaks) of `length` bytes.
// The caller owns the zero-filled array of kBase64EncLimit + 1 bytes.
std::unique_ptr<char[]> SzBase64EncBuffer(const void* buffer, size_t length);
// The same, stopping at the first zero byte of `subject` (or at `length`).
std::unique_ptr<char[]> SzBase64EncOneLine(const char* subject, size_t length);
// Decodes `inlen` characters into `out`, whose space *outlen gives on entry; on
// return *outlen holds the bytes written. True only for complete, well-formed input
// that fits (an empty input is true with *outlen 0).
bool EncBase64Dec(const char* in, size_t inlen, unsigned char* out, size_t* outlen);

// The fixed key of the wire scrambling; both ends of a connection hold it.
extern const unsigned char g_encChalleng[4];

// Blowfish CFB64 (zero vector) under g_encChalleng, then Base64: a guard against
// casual reading of the stream, not a secure channel. An empty input gives an empty
// output. 0; -1 for input too long to encode (over 2304 bytes).
int SyncPassEnc(const std::string& in, std::string& out);
int SyncPassEnc(const ustring& in, ustring& out);
// The reverse. 0; -1 for text that is not valid Base64 (out is then empty).
int SyncPassDec(const std::string& in, std::string& out);
int SyncPassDec(const ustring& in, ustring& out);

// Narrow text and the native string. Narrow text on this platform is UTF-8 whatever
// the locale, so each is a checked copy. Empty input gives empty output and 0; -1
// for bytes that are not UTF-8 or input of 8192 bytes and more.
int CodePageToNativeStr(const std::string& in, ustring& out);
int UTF8ToNativeStr(const std::string& in, ustring& out);
int NativeStrToCodePage(const ustring& in, std::string& out);
int NativeStrToUTF8(const ustring& in, std::string& out);

// The machine's name in UTF-8. 0; -1 (logged).
int GetSysHostName(ustring& host);

// Splits "DOMAIN/user" or "DOMAIN\user" at the last "/", else at the last "\":
// `domain` gets the front and `user_name` the rest. Without a delimiter `domain`
// is emptied and `user_name` stays.
void ParseUsrName(ustring& user_name, ustring& domain);

// Milliseconds on the process clock's tick, which never goes back (a test clock
// moves it by hand); for measuring intervals only.
uint64_t GetMonotonicMs();
