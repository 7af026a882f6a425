// log.h: the process-wide log. Every line names a component; a level file gives each
// component a limit (L_WARNING without an entry). The file rotates above 1048576
// characters into P_0 .. P_(N-1). All state is static; all calls take one mutex.
//
// Call convention: the format begins with the level word and the source file and line,
// and the first argument is the line:
//   Logger::LogMsg(Logger::L_ERR, "client_debug", "[ERROR] app(%d): Failed at [%s]\n",
//                  __LINE__, path.c_str_utf8());
// Formats are UTF-8 printf formats; pass ustring arguments as c_str_utf8().
#pragma once

#include <cstdarg>
#include <cstdio>

#include "foundation/ustring.h"

class Logger {
  public:
    enum Type { SYSLOG_LOGGER = 0, STDOUT_LOGGER = 1, STDERR_LOGGER = 2, FILE_LOGGER = 3 };
    enum Level {
        L_EMERG = 0,
        L_ALERT = 1,
        L_CRIT = 2,
        L_ERR = 3,
        L_WARNING = 4,
        L_NOTICE = 5,
        L_INFO = 6,
        L_DEBUG = 7,
    };

    // Reads the level file (if any), then sets up the output. 0, or -1 when a file log
    // can't be opened or has no path.
    static int Initialize(int type, const ustring& log_path, const ustring& level_path,
                          int rotate_count);
    // Closes a file log and falls back to standard streams.
    static void Destroy();

    static void LogMsg(int level, const ustring& component, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    static void LogMsg2(int level, const ustring& component, const char* format, va_list args)
        __attribute__((format(printf, 3, 0)));
    // Moves P_i to P_(i+1), drops P_(N-1), moves P to P_0, reopens P. 0 or -1; after a
    // failure the log stays silent until the next start. Callers hold no lock.
    static int Rotate();

    // True when a line of `level` for `component` would be written; lets callers skip
    // building expensive arguments.
    static bool Enabled(int level, const ustring& component);
};

// For code that names its component as plain bytes.
void LogMSG_c(int level, const char* component, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
