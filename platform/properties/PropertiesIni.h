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
  // it could not see is not lost. Waits as ReadFile in FileReplacement.h does.
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
  // that file and storing with a header puts another one above. How the file is replaced, and what
  // that promises, is said at ReplaceFile in FileReplacement.h. False when it did not work: the
  // file is as it was, but for the cases named there.
  bool Store(const std::string& path, const std::string& header);

 private:
  std::string text_;
  std::set<std::string> unreadablePaths_;
};
