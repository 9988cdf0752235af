// Reading a whole file, and replacing one so that nothing is lost.
#pragma once

#include <string>

namespace file_replacement {

enum class ReadResult {
  kRead,        // the text is the file's
  kMissing,     // nothing is there
  kUnreadable,  // something is there that cannot be read whole, or is no regular file
};

// Reads the file at `path` into `text`; `text` is empty unless the result is kRead. A file of more
// than 32 MiB is unreadable. Waits for no lock, only for the kernel to take back another process's
// lease. A file that can only be rewritten in place, and was written just now, is read again until
// 30 ms have passed since, for some 200 ms at most: whoever writes it may be half done.
ReadResult ReadFile(const std::string& path, std::string& text);

// Makes `text` the content of the file at `path`; a missing file is made with mode 0666 less the
// umask. A symbolic link is followed and stays a link. Returns false when that did not work, and
// for a text of more than 32 MiB. Takes no lock and waits for nobody's: of several processes that
// replace the file at the same time, one has the last word.
//
// The new content is written to a temporary file beside the target, with the target's mode and
// owner, brought to the disk and renamed over it: every reader, and a machine that loses power,
// finds the old content or the new, whole. False then means that the old content still stands; or
// that the new one does but may not survive a power cut, when only the last step failed: bringing
// the folder to the disk, for which it must be readable.
//
// In a folder with the set-group-ID bit a file of the folder's group, where that may do what the
// owner may and there is no access control list, becomes the file of whoever replaces it when the
// owner cannot be kept: so several users replace one file safely. Group and mode are kept.
//
// Where permission for that is denied (a folder that is not writable, a file that is mounted on its
// own, an owner or attributes that cannot be kept), the file is rewritten in place: the room is
// taken first, the content read before put back when a write fails, and the length cut last. Each
// process reads the file afterwards and writes again until it finds its own text, for about a
// second at most; false then means that another process's text stands there, or a mix. In place
// nothing can be promised to another reader than ReadFile, nor when a process is killed in the
// middle, the power fails or a disk fails twice: they may see a mix, or zeros at the end; and false
// may also mean that the new content stands but may not survive a power cut.
//
// Extended attributes and access control lists are kept. A write-protected file in a writable
// folder is replaced, and stays write-protected. Not kept: hard links to the file. A killed process
// may leave its temporary file, `.ini-PID-N.tmp`; the next replacement by rename in that folder
// removes it once no process has that PID. A limit on the size of files is a failure, not a signal.
bool ReplaceFile(const std::string& path, const std::string& text);

}  // namespace file_replacement
