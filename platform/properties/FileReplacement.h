// Reading a whole file, and replacing one so that nothing is lost.
#pragma once

#include <string>

namespace file_replacement {

enum class ReadResult {
  kRead,        // the text is the file's
  kMissing,     // nothing is there
  kUnreadable,  // something is there that cannot be read whole, or is no regular file
};

// Reads the file at `path` into `text`; `text` is empty unless the result is kRead. Waits for a
// ReplaceFile that is rewriting it in place, ten seconds at most, whoever holds the lock, and for
// the kernel to take back another process's lease.
ReadResult ReadFile(const std::string& path, std::string& text);

// Makes `text` the content of the file at `path`; a missing file is made with mode 0666 less the
// umask. A symbolic link is followed and stays a link. Returns false when that did not work.
//
// The new content is written to a temporary file beside the target, with the target's mode and
// owner, brought to the disk and renamed over it: every reader, and a machine that loses power,
// finds the old content or the new, whole. False then means that the old content still stands; or
// that the new one does but may not survive a power cut, when only the last step failed: bringing
// the folder to the disk, for which it must be readable.
//
// Where the folder refuses the new file or the rename (not writable, read-only, a file mounted on
// its own), or owner, mode and attributes cannot be kept, the file is rewritten in place: the room
// is taken first, the old content put back when a write fails, and the length cut last. Those who
// do so wait for one another, by flock on the file, ten seconds at most; then it is a failure. It
// cannot promise what a rename does: another reader than ReadFile, a process killed in the middle,
// a power cut, or a disk that fails twice may see a mix of both, with zeros where the file was to
// grow; and when only bringing it to the disk failed, false means that the new content stands but
// may not survive a power cut.
//
// Extended attributes and access control lists are kept. A write-protected file in a writable
// folder is replaced, and stays write-protected. Not kept: hard links to the file. A killed process
// may leave its temporary file, `.ini-PID-N.tmp`; the next replacement by rename in that folder
// removes it. A limit on the size of files is a failure, not a signal.
bool ReplaceFile(const std::string& path, const std::string& text);

}  // namespace file_replacement
