// trash.h (POSIX): moving an object to the desktop trash in the freedesktop.org
// layout, so file managers can restore it. Used by the POSIX FileSystem's
// move_to_trash; takes the FileSystem to work through so tests can fault it.
#pragma once

#include "platform/fs.h"

namespace platform {

// Moves `path` (made absolute against the working directory if relative) into a
// trash on its own volume: the home trash ($XDG_DATA_HOME/Trash, else
// $HOME/.local/share/Trash) when that lies on the same volume, else the volume's
// $top/.Trash/$uid (a sticky, non-link .Trash) or $top/.Trash-$uid. Writes
// info/NAME.trashinfo first, then renames the object to files/NAME without
// replacing anything. 0; or -1 with the error that stopped it, having moved and
// deleted nothing, when no trash can take the object.
int freedesktop_trash(FileSystem& fs, const char* path, int* err = nullptr);

}  // namespace platform
