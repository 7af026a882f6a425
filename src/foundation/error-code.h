// error-code.h: the daemon's error codes. Every failing operation of the daemon
// returns one of these negative numbers; GetErrorString gives its fixed text.
#pragma once

enum ErrorCode {
    ERR_OK = 0,
    ERR_INT = -1,
    ERR_IO = -2,
    ERR_SYS = -3,
    ERR_INVAL = -4,
    ERR_PROTO = -5,
    ERR_AUTH = -6,
    ERR_SERVER = -7,
    ERR_CONFLICT = -8,
    ERR_TIMEOUT = -9,
    ERR_VERSION = -10,
    ERR_NOENT = -11,
    ERR_USER = -12,
    ERR_PASSWORD = -13,
    ERR_YRMDISABLE = -14,
    ERR_QUOTA = -15,
    ERR_DISKFULL = -16,
    ERR_SYNCFOLDER_MISS = -17,
    ERR_VIEW = -18,
    ERR_PERMISS = -19,
    ERR_VIEW_PATH = -20,
    ERR_CH_CONNECTION_ABORT = -21,
    ERR_LOCAL_DISKFULL = -22,
    ERR_LOCKED_FILE = -23,
    ERR_MAX = -24,  // end of the list, not a code
};

// The text of a code, looked up by its absolute value; anything past the list
// gives "Unknown error". The pointer is to static storage.
const char* GetErrorString(int code);
