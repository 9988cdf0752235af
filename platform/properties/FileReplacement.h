// Reading a whole file, and replacing one so that nothing is lost.
#pragma once

#include <string>

enum class ReadResult {
  kRead,        // the text is the file's
  kMissing,     // nothing is there
  kUnreadable,  // something is there that cannot be read whole, or is no regular file
};

// Reads the file at `path` into `text`; `text` is empty unless the result is kRead.
ReadResult ReadFile(const std::string& path, std::string& text);

// Makes `text` the content of the file at `path`; a missing file is made with mode 0666 less the
// umask. A symbolic link is followed and stays a link. Returns false when that did not work.
//
// The new content is written to a temporary file beside the target, with the target's mode and
// owner, brought to the disk and renamed over it: every reader, and a machine that loses power,
// finds the old content or the new, whole. False then means that the old content still stands, or,
// when only the last step failed (bringing the folder to the disk), that the new content stands but
// may not survive a power cut.
//
// Where the folder refuses the new file or the rename (not writable, read-only, a file mounted on
// its own), or the owner cannot be kept, the file is rewritten in place: the room is taken first,
// the old content put back when a write fails, and the length cut last. That cannot promise what a
// rename does: a reader at that moment, or a process killed in the middle, may see a mix of both.
//
// Not kept: hard links to the file, access control lists. A killed process may leave its temporary
// file, `.ini-PID-N.tmp`; deleting it is safe.
bool ReplaceFile(const std::string& path, const std::string& text);
