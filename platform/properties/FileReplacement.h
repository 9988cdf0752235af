// Reading a whole file, and replacing one so that nothing is lost.
#pragma once

#include <string>

namespace file_replacement {

enum class ReadResult {
  kRead,        // the text is the file's
  kMissing,     // there is no such file
  kUnreadable,  // it exists, and cannot be read whole or is no regular file
};

// Reads the file at `path` into `text`; `text` is empty unless the result is kRead. A file of more
// than 32 MiB is unreadable. Waits for no lock, only for the kernel to break another process's
// lease. A file that can only be rewritten in place is read again until its last change is 30 ms
// old, for about 200 ms at most: another process may still be writing it.
ReadResult ReadFile(const std::string& path, std::string& text);

// Makes `text` the content of the file at `path`; a missing file is created with mode 0666 less the
// umask. A symbolic link is followed and stays a link. Returns false on failure, and for a text of
// more than 32 MiB. Takes no lock and waits for none: when several processes replace the file at
// the same time, the last one wins.
//
// By rename: the new content is written to a temporary file beside the target, with the target's
// mode and owner, flushed to the disk and renamed over the target. Every reader, and a machine that
// loses power, finds the old content or the new, whole. A full disk leaves the old content. Last,
// the folder is flushed, so it must be readable. If only this fails, the result is false though the
// new content is there: it may not survive a power cut. After any other failure the old content is
// there.
//
// The owner may change in a folder with the set-group-ID bit: a file of the folder's group, with
// the owner's rights for the group and no access control list, then belongs to the user who
// replaces it. So several users replace one file safely. Group and mode are kept.
//
// In place, where permission for a step is denied (a folder that is not writable, a file that is a
// mount of its own, an owner or attributes that cannot be kept): the disk space is allocated first,
// so a full disk fails before anything is overwritten; the old content is written back when a write
// fails; the file is truncated last. Each process reads the file afterwards and writes again until
// it finds its own text, for about a second at most. False means: the old content is there; or
// another process's text, or a mix; or the new content, which may not survive a power cut. Readers
// other than ReadFile may see a mix of both texts, or zeros at the end; so may everybody after a
// killed process, a power cut or a disk that fails twice.
//
// Extended attributes and access control lists are kept; hard links to the file are not. A
// write-protected file in a writable folder is replaced, and stays write-protected. A killed
// process may leave its temporary file, `.ini-PID-N.tmp`; the next replacement by rename in that
// folder removes it once no process has that PID. A limit on the size of files is a failure, not a
// signal.
bool ReplaceFile(const std::string& path, const std::string& text);

}  // namespace file_replacement
