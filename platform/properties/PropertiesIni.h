// A settings file: sections of `key=value` lines, edited without disturbing anything else.
//
//   PropertiesIni settings;
//   settings.Load(path);
//   settings.SetProperty("SETTINGS", "Timeout", "500");
//   settings.Store(path, "");
//
// People and other programs edit the file as well, so comments, blank lines, unknown lines, blanks
// around `=`, CRLF or LF, NUL bytes, a byte order mark and a missing final newline survive. Nothing
// changes but the values that SetProperty sets.
//
// The format:
// - A line `[name]` begins a section; keys before the first such line are in the section "". A
//   section may come in several pieces.
// - A line that begins with `;` or `#` is a comment. There are no inline comments: the value is the
//   rest of the line after the first `=`.
// - Names are compared exactly. Blanks (spaces and tabs) around names and values are ignored.
// - A value is written verbatim, unless it holds a CR, LF or NUL, begins or ends with a blank, or
//   begins with a double quote: then it is written in double quotes, with \" \\ \n \r \0 for these
//   characters. So no value adds a line, a key or a section.
//
// Nothing is locked from Load to Store: when two processes load and store the same file at the same
// time, the later Store wins as a whole.
#pragma once

#include <set>
#include <string>

class PropertiesIni {
 public:
  // Replaces the object's text by that of the file at `path`. A missing file counts as empty.
  // Returns false when it cannot be read whole, has more than 32 MiB, or is no regular file: the
  // object is then empty and refuses to Store to that path, so that text which it could not read is
  // not lost. Waits for no lock, only for the kernel to break another process's lease, and about
  // 200 ms at most for a file that another process is rewriting in place.
  bool Load(const std::string& path);

  // Sets every occurrence of `key` in the sections of that name to the value. A new key goes after
  // the last non-blank line of the last such section; a new section goes to the end. A name that no
  // line can hold changes nothing: one with CR, LF or NUL, a section with `]`, a key that is empty,
  // holds `=`, or begins with `[`, `;`, `#` or a byte order mark.
  void SetProperty(const std::string& section, const std::string& key, const std::string& value);

  // The value of the first such key; empty when there is none. In a value that another program
  // quoted, \n, \r and \0 are decoded like ours.
  std::string GetProperty(const std::string& section, const std::string& key) const;

  // Writes the text to `path`, below the lines of `header`, each as a comment; an empty header
  // writes none. The object is unchanged: storing again with a header writes it once, but loading
  // that file and storing it with a header adds another one. Returns false on failure.
  //
  // A missing file is created with mode 0666 less the umask; a symbolic link is followed and stays
  // one. The new text is written beside the file, with its mode, owner, extended attributes and
  // access control lists, flushed to the disk and renamed over it: every reader, and a machine that
  // loses power, finds the old text or the new, whole. A full disk leaves the old text. False
  // means: the old text is there; or the new text is there but may not survive a power cut, because
  // the folder could not be flushed. A killed process may leave `.ini-PID-N.tmp`; a later Store
  // removes it.
  //
  // Where permission for that is denied (a folder that is not writable, a file that is a mount of
  // its own, an owner that cannot be kept), the file is rewritten in place, repeatedly for about a
  // second until it holds our text. Then other readers, a power cut or a killed process may meet a
  // mix of both texts; false may also mean that another process's text is there.
  bool Store(const std::string& path, const std::string& header);

 private:
  std::string text_;
  std::set<std::string> unreadablePaths_;
};
