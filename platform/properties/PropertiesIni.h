// A settings file: sections of `key=value` lines, edited without disturbing anything else.
//
//   PropertiesIni settings;
//   settings.Load(path);
//   settings.SetProperty("SETTINGS", "Timeout", "500");
//   settings.Store(path, "");
//
// The file belongs to people and to other programs as well: comments, blank lines, lines of unknown
// meaning, blanks around `=`, CRLF or LF, NUL bytes, a byte order mark and a missing final newline
// all survive. Only what SetProperty changes is changed.
//
// What a reader of the file sees:
// - A line `[name]` begins a section; keys before the first such line are in the section "". A
//   section may come in several pieces.
// - A line that begins with `;` or `#` is a comment. There are no inline comments: the value is the
//   rest of the line behind the first `=`.
// - Names are compared exactly. Blanks (spaces and tabs) around names and values mean nothing.
// - A value stands verbatim, unless it holds a CR, LF or NUL, begins or ends with a blank, or
//   begins with a double quote: then it stands in double quotes, with \" \\ \n \r \0 for these
//   characters. So no value adds a line, a key or a section.
//
// Nothing is locked from Load to Store: of two processes that load and store the same file at the
// same time, the later Store wins whole.
#pragma once

#include <set>
#include <string>

class PropertiesIni {
 public:
  // Takes the text of the file at `path` in place of what the object held. A missing file is an
  // empty one. False when something is there that cannot be read whole, has more than 32 MiB, or
  // is no regular file: the object is then empty, and refuses to Store to that path, so that what
  // it could not see is not lost. Waits for no lock, only for the kernel to take back another
  // process's lease, and some 200 ms at most for a file that somebody rewrites in place just now.
  bool Load(const std::string& path);

  // Gives `key` in `section` the value, wherever that key stands in a section of that name. A new
  // key goes behind the last non-blank line of the last such section; a new section goes to the
  // end. A name that no line could hold changes nothing: one with CR, LF or NUL, a section with
  // `]`, a key that is empty, holds `=`, or begins with `[`, `;`, `#` or a byte order mark.
  void SetProperty(const std::string& section, const std::string& key, const std::string& value);

  // The value of the first such key; empty when there is none. In a quoted value of another
  // program's making, \n, \r and \0 are taken for ours.
  std::string GetProperty(const std::string& section, const std::string& key) const;

  // Writes the text to `path`, below the lines of `header`, each made a comment; an empty header
  // writes none. The object is unchanged: storing again with a header writes it once, but loading
  // that file and storing with a header puts another one above. False when it did not work.
  //
  // A missing file is made with mode 0666 less the umask; a symbolic link is followed and stays
  // one. The new text is written beside the file, with its mode, owner, extended attributes and
  // access control lists, brought to the disk and renamed over it: every reader, and a machine that
  // loses power, finds the old text or the new, whole. False: the old text stands; or the new one
  // does but may not survive a power cut, because the folder could not be brought to the disk. A
  // killed process may leave `.ini-PID-N.tmp` there; a later Store removes it.
  //
  // Where that is denied (a folder that is not writable, a file that is mounted on its own, an
  // owner that cannot be kept), the file is rewritten in place, again for about a second until our
  // text stands. Then another reader, a power cut or a killed process may meet a mix of both texts;
  // False may also mean that another process's text stands.
  bool Store(const std::string& path, const std::string& header);

 private:
  std::string text_;
  std::set<std::string> unreadablePaths_;
};
