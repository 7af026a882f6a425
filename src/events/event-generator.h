// event-generator.h: turns what the server reports, and what selective sync and
// comparisons ask for, into events for the event manager. The syncers call
// PushEvent for each change of a pull reply; the filter reload, the removal
// worker and rescans call the others to force an upload, a download or a
// removal.
//
// Every function takes a copy of the session's registry entry and returns 1
// when it pushed an event; the event's session is entry.sess_id. Paths are
// relative to the session root with a leading "/". Log lines use the category
// "worker_debug".
#pragma once

#include <cstdint>

#include "foundation/object.h"
#include "foundation/ustring.h"
#include "runtime/registry.h"
#include "state/selective-sync.h"

// True when a path from the server names something below the session root and nothing
// else: one leading "/", plain names between single separators, no "." or "..", no
// trailing "/" except for the root itself, no backslash, no NUL, no drive ("/C:").
bool IsUsableServerPath(const ustring& path);
// One record of the server's "event_list" ("is_dir", "is_removed", "path",
// "sync_id", optional "max_id", "file", "common_attribute", "mtime",
// "mac_attribute", "exec_bit"). 1 when a server event was pushed; 0 when none
// is needed: a removal of a path this client doesn't know, or a change the
// database already holds while the object is on disk (the client's own work
// coming back). A record whose path is not an absolute path of plain names
// (see IsUsableServerPath) is dropped with an error, also 0.
int PushEvent(Registry::Entry& reg, const PObject& ref);
// A local change a filter held back and a new filter lets through: an upload
// when ref.is_exist is not 0, otherwise a forced download; a directory when
// ref.file_type is not 0. Always 1.
int PushEvent(Registry::Entry& reg, const FilterLocalEvent& ref);
// A server removal with the given ids. Always 1.
int PushServerRemoveEvent(Registry::Entry& reg, const ustring& path, bool isDir, uint64_t sync_id,
                          uint64_t max_id);
// A local modification: the path is uploaded. Always 1.
int PushUploadEvent(Registry::Entry& reg, const ustring& path, bool isDir);
// A local removal: the path is removed on the server. Always 1.
int PushLocalRemoveEvent(Registry::Entry& reg, const ustring& path, bool isDir);
// A forced download of what the database knows of the path, with MAX_SYNC_ID as
// its ids so that any real server event overrides it. Always 1.
int PushDownloadEvent(Registry::Entry& reg, const ustring& path, bool isDir);
