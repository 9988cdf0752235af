// What holds for settings files of every shape. The files are made of typed lines, so that what
// must become of them is known without reading them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "Files.h"
#include "PropertiesIni.h"

namespace {

using std::string_literals::operator""s;

// The same runs every time. Others: set RC_PARAMS inside the sandbox.
const int PARAMETERS = setenv("RC_PARAMS", "seed=20 max_success=1000 max_size=30", 0);

const std::string PATH = "/tmp/settings.ini";
const std::string BYTE_ORDER_MARK = "\xEF\xBB\xBF";

enum class Kind { kBlank, kComment, kUnknown, kSection, kEntry };

struct Line {
  Kind kind;
  std::string name;   // of the section or the key
  std::string start;  // up to the value; of lines other than entries, all
  std::string value = "";
  std::string rest = "";  // behind the value
  std::string end = "";   // empty: the last line's newline is missing
};

struct File {
  bool hasByteOrderMark;
  std::vector<Line> lines;
};

std::string Text(const File& file) {
  std::string text = file.hasByteOrderMark ? BYTE_ORDER_MARK : "";
  for (const Line& line : file.lines) {
    text += line.start + line.value + line.rest + line.end;
  }
  return text;
}

std::ostream& operator<<(std::ostream& out, const File& file) {
  return out << testing::PrintToString(Text(file));
}

std::string LineEnd(const File& file) {
  return file.lines.empty() || file.lines.front().end.empty() ? "\n" : file.lines.front().end;
}

void Insert(File& file, std::size_t position, Line line) {
  const std::string end = LineEnd(file);
  line.end = end;
  if (position > 0 && file.lines[position - 1].end.empty()) {
    std::swap(line.end, file.lines[position - 1].end);
  }
  file.lines.insert(file.lines.begin() + static_cast<std::ptrdiff_t>(position), line);
}

// The file with the value, as it stands there, for the key in the section.
File Edited(File file, const std::string& section, const std::string& key,
            const std::string& value) {
  std::string current;
  std::optional<std::size_t> sectionEnd;
  if (section.empty()) {
    sectionEnd = 0;
  }
  bool isFound = false;
  for (std::size_t i = 0; i < file.lines.size(); ++i) {
    Line& line = file.lines[i];
    current = line.kind == Kind::kSection ? line.name : current;
    if (current != section) {
      continue;
    }
    if (line.kind != Kind::kBlank) {
      sectionEnd = i + 1;
    }
    if (line.kind == Kind::kEntry && line.name == key) {
      line.value = value;
      isFound = true;
    }
  }
  if (isFound) {
    return file;
  }
  if (!sectionEnd) {
    if (!file.lines.empty() && file.lines.back().kind != Kind::kBlank) {
      Insert(file, file.lines.size(), {Kind::kBlank, "", ""});
    }
    Insert(file, file.lines.size(), {Kind::kSection, section, "[" + section + "]"});
    sectionEnd = file.lines.size();
  }
  Insert(file, *sectionEnd, {Kind::kEntry, key, key + "=", value});
  return file;
}

rc::Gen<std::string> Blanks() {
  return rc::gen::element(""s, ""s, " "s, "\t"s, " \t "s);
}

// Begins and ends with a letter. No equals sign: a line of it means nothing.
rc::Gen<std::string> Words() {
  return rc::gen::map(rc::gen::container<std::string>(rc::gen::element(
                          'x', ' ', '\t', '[', ']', ';', '#', '"', '\\', '\r', '\0', '\xE4')),
                      [](const std::string& text) { return "x" + text + "x"; });
}

rc::Gen<std::string> SectionName() {
  return rc::gen::element("S"s, "T"s, "s"s, "SS"s, ""s, "S = ; T"s);
}

rc::Gen<std::string> Key() {
  return rc::gen::element("k"s, "a"s, "K"s, "kk"s, "k k"s, "k]"s);
}

rc::Gen<std::string> ForeignValue() {
  return rc::gen::oneOf(rc::gen::just(""s), Words(),
                        rc::gen::element("=1"s, "[S]"s, "; 1"s, "\" 1\\n\""s, "\"1\" 2"s, "\""s));
}

Line AnyLine() {
  const std::string section = *SectionName();
  const std::string key = *Key();
  const std::string value = *ForeignValue();
  const std::string start = *Blanks();
  const std::string rest = *Blanks();
  switch (*rc::gen::weightedElement<Kind>({{1, Kind::kBlank},
                                           {1, Kind::kComment},
                                           {1, Kind::kUnknown},
                                           {2, Kind::kSection},
                                           {4, Kind::kEntry}})) {
    case Kind::kBlank:
      return {Kind::kBlank, "", start};
    case Kind::kComment:
      return {Kind::kComment, "",
              start + *rc::gen::element(";k=1"s, "#[S]"s, ";"s, "#k=1"s) + *Words() + rest};
    case Kind::kUnknown:
      return {Kind::kUnknown, "", start + *Words() + rest};
    case Kind::kSection:
      return {Kind::kSection, section,
              start + "[" + *Blanks() + section + *Blanks() + "]" +
                  *rc::gen::element(""s, " ; x"s, "=1"s, "]"s) + rest};
    case Kind::kEntry:
      break;
  }
  // Without a value, one would go to the end of the line.
  return {Kind::kEntry, key, start + key + *Blanks() + "=" + *Blanks(), value,
          value.empty() ? "" : rest};
}

File AnyFile() {
  File file;
  file.hasByteOrderMark = *rc::gen::element(false, false, true);
  file.lines = *rc::gen::container<std::vector<Line>>(rc::gen::exec(AnyLine));
  const auto ends =
      *rc::gen::element(std::vector{"\n"s}, std::vector{"\r\n"s}, std::vector{"\n"s, "\r\n"s});
  for (Line& line : file.lines) {
    line.end = *rc::gen::elementOf(ends);
  }
  if (!file.lines.empty() && *rc::gen::element(false, true)) {
    Line& last = file.lines.back();
    const bool isSomething = !(last.start + last.value + last.rest).empty();
    last.end = isSomething ? "" : last.end;
  }
  return file;
}

// Bytes that could mean something, and any others.
rc::Gen<std::string> Bytes() {
  return rc::gen::container<std::string>(
      rc::gen::oneOf(rc::gen::element('\n', '\r', '\0', '"', '\\', ' ', '\t', '[', ']', '=', ';',
                                      '#', 'n', '0', 'S', 'k'),
                     rc::gen::arbitrary<char>()));
}

// Short, and with few bytes that no name could have.
rc::Gen<std::string> AnyName() {
  return rc::gen::scale(
      0.2, rc::gen::container<std::string>(rc::gen::element('S', 'k', ' ', '\t', '"', '\\', '[',
                                                            ';', '#', ']', '=', '\xEF', '\0')));
}

PropertiesIni Loaded() {
  PropertiesIni settings;
  RC_ASSERT(settings.Load(PATH));
  return settings;
}

// What becomes of a file with this text.
std::string After(const std::string& before, const std::string& section, const std::string& key,
                  const std::string& value) {
  WriteText(PATH, before);
  PropertiesIni settings = Loaded();
  settings.SetProperty(section, key, value);
  RC_ASSERT(settings.Store(PATH, ""));
  return ReadText(PATH);
}

RC_GTEST_PROP(PropertiesIniOfAnyShape, GetsTheValueAndKeepsEveryOtherByte, ()) {
  const File file = *rc::gen::exec(AnyFile);
  const std::string section = *SectionName();
  const std::string key = *Key();
  const std::string value = *Bytes();
  const std::string alone = After("", "S", "k", value);
  const std::string stored = alone.substr(6, alone.size() - 7);  // of "[S]\nk=...\n"
  RC_ASSERT(stored.find_first_of("\r\n\0"s) == std::string::npos);
  RC_ASSERT(After(Text(file), section, key, value) == Text(Edited(file, section, key, stored)));
  RC_ASSERT(Loaded().GetProperty(section, key) == value);
}

RC_GTEST_PROP(PropertiesIniOfAnyBytes, StaysAsItWasWhenNothingIsSet, ()) {
  const std::string text = *Bytes();
  WriteText(PATH, text);
  RC_ASSERT(Loaded().Store(PATH, ""));
  RC_ASSERT(ReadText(PATH) == text);
}

RC_GTEST_PROP(PropertiesIniOfAnyBytes, StaysAsItWasWhenTheSameIsSetAgain, ()) {
  const std::string value = *Bytes();
  const std::string once = After(*Bytes(), "S", "k", value);
  RC_ASSERT(After(once, "S", "k", value) == once);
}

RC_GTEST_PROP(PropertiesIniOfAnyBytes, GivesBackTheValueOrTakesNoNotice, ()) {
  const std::string text = *Bytes();
  const std::string section = *AnyName();
  const std::string key = *AnyName();
  const std::string value = *Bytes();
  const bool isTaken = After(text, section, key, value) != text;
  RC_ASSERT(!isTaken || Loaded().GetProperty(section, key) == value);
}

// A header adds a comment for each of its lines, and nothing else.
RC_GTEST_PROP(PropertiesIniOfAnyBytes, StandsWholeBelowAHeader, ()) {
  const std::string text = *Bytes();
  const std::string header = *Bytes();
  const std::string top = *rc::gen::element(""s, BYTE_ORDER_MARK);
  WriteText(PATH, top + text);
  RC_ASSERT(Loaded().Store(PATH, header));
  const std::string after = ReadText(PATH);
  RC_ASSERT(after.substr(0, top.size()) == top);
  RC_ASSERT(after.size() >= top.size() + text.size());
  RC_ASSERT(after.substr(after.size() - text.size()) == text);
  const std::string comments = after.substr(top.size(), after.size() - top.size() - text.size());
  RC_ASSERT(header.empty() == comments.empty());
  RC_ASSERT(comments.empty() || comments.back() == '\n');
  for (const std::string& line : Lines(comments)) {
    RC_ASSERT(line.substr(0, 2) == "# ");
    RC_ASSERT(line.find('\r') >= line.size() - 1);
  }
}

}  // namespace
