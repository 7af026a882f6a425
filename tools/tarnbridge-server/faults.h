// faults.h: fault injection for tests and for people trying how a client copes. A plain
// text file, re-read whenever it changes (size or modification time), one rule a line:
//
//   close-after ACTION BYTES [times=N]   drop the connection once BYTES bytes of an ACTION
//                                        request (its header included) have been read
//   error ACTION PATH CODE [times=N]     answer error CODE (decimal or 0x hex) to ACTION
//                                        requests whose path is PATH
//   delay ACTION MILLISECONDS [times=N]  hold the reply that long (keep-alives go out
//                                        meanwhile when it is long)
//   cut-reply ACTION BYTES [times=N]     drop the connection once BYTES bytes of the reply
//                                        to an ACTION request were sent
//   bad-hash ACTION PATH [times=N]       spoil the "file"."hash" of the reply to ACTION
//                                        requests whose path is PATH
//
// ACTION is a request's action ("upload", "resume_download", ...) or "*" for any; PATH is a
// view path or "*". A rule with times=N fires N times after each load of the file, then
// rests. "#" starts a comment; a line that doesn't parse is logged and skipped.
// One Faults object serves all connections of a server; every call is thread-safe.
#pragma once

#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

class Faults {
  public:
    struct Rule {
        enum Kind { CLOSE_AFTER, ERROR, DELAY, CUT_REPLY, BAD_HASH } kind = CLOSE_AFTER;
        std::string action;
        std::string path;
        uint64_t value = 0;
        int remaining = -1;  // firings left; -1 for no limit
    };

    explicit Faults(const std::string& path = std::string()) : m_path(path) {}

    // The bytes after which the request is to be cut, 0 for none. Uses up one firing.
    uint64_t CloseAfter(const std::string& action);
    // The error code to answer, 0 for none.
    uint32_t ErrorFor(const std::string& action, const std::string& path);
    // Milliseconds to hold the reply, 0 for none.
    uint32_t DelayMs(const std::string& action);
    // The bytes of the reply after which the connection is to be cut, 0 for none.
    uint64_t CutReplyAfter(const std::string& action);
    // Whether the reply's hash is to be spoiled.
    bool BadHash(const std::string& action, const std::string& path);

    // Parses the text of a fault file; bad lines are skipped and counted in `bad`.
    static std::vector<Rule> Parse(const std::string& text, int& bad);

  private:
    // Re-reads the file if it changed since the last look. Called with m_mutex held.
    void Refresh();
    const Rule* Fire(Rule::Kind kind, const std::string& action, const std::string& path);

    std::string m_path;
    std::mutex m_mutex;
    std::vector<Rule> m_rules;
    bool m_loaded = false;
    int64_t m_size = -1;
    struct timespec m_mtime {};
};
