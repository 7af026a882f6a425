// app-log.h: the log component of the application object and its commands.
#pragma once

inline constexpr const char* kAppLog = "client_debug";
