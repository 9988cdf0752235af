// What holds for settings files of every shape; then examples of what is too rare for chance. The
// files are made of typed lines, so that what must become of them is known without reading them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <cstdlib>
#include <optional>
#include <regex>

#include "Files.h"
#include "PropertiesIni.h"

namespace {

namespace fs = std::filesystem;

using std::string_literals::operator""s;

// The same runs every time. Others: set RC_PARAMS inside the sandbox.
const int PARAMETERS = setenv("RC_PARAMS", "seed=20 max_success=1000 max_size=30", 0);

const std::string PATH = "/tmp/settings/settings.ini";
const std::string BYTE_ORDER_MARK = "\xEF\xBB\xBF";

enum class Kind { kBlank, kComment, kUnknown, kSection, kEntry };

struct Line {
  Kind kind;
  std::string name;   // of the section or the key
  std::string start;  // up to the value; of lines other than entries, all
  std::string value = "";
  std::string rest = "";  // behind the value
  std::string end = "";   // without a newline only on the last line: empty or a CR
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

void Insert(File& file, std::size_t position, Line line) {
  line.end = !file.lines.empty() && file.lines.front().end == "\r\n" ? "\r\n" : "\n";
  if (position > 0 && file.lines[position - 1].end.empty()) {
    std::swap(line.end, file.lines[position - 1].end);
  } else if (position > 0 && file.lines[position - 1].end == "\r") {
    file.lines[position - 1].end = "\r\n";
    line.end = "";
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

// The value as it stands there, of the first of that key.
std::string FirstValue(const File& file, const std::string& section, const std::string& key) {
  std::string current;
  for (const Line& line : file.lines) {
    current = line.kind == Kind::kSection ? line.name : current;
    if (current == section && line.kind == Kind::kEntry && line.name == key) {
      return line.value;
    }
  }
  return "";
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
  return rc::gen::element("S"s, "T"s, "s"s, "SS"s, ""s, "S = ;#1 [T"s);
}

rc::Gen<std::string> Key() {
  return rc::gen::element("k"s, "a"s, "K"s, "kk"s, "k k"s, "k]"s, "k ;[]\""s);
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
      return {Kind::kUnknown, "",
              start + *rc::gen::oneOf(Words(), rc::gen::element("[S"s, "k"s, "k: 1"s)) + rest};
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
    last.end = isSomething ? *rc::gen::element(""s, "\r"s) : last.end;
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

// What a file with this text holds.
PropertiesIni Loaded(const std::string& text) {
  WriteText(PATH, text);
  PropertiesIni settings;
  EXPECT_TRUE(settings.Load(PATH));
  return settings;
}

std::string Read(const std::string& text, const std::string& section, const std::string& key) {
  return Loaded(text).GetProperty(section, key);
}

// What becomes of a file with this text.
std::string After(const std::string& before, const std::string& section, const std::string& key,
                  const std::string& value) {
  PropertiesIni settings = Loaded(before);
  settings.SetProperty(section, key, value);
  EXPECT_TRUE(settings.Store(PATH, ""));
  return ReadText(PATH);
}

RC_GTEST_PROP(PropertiesIniOfAnyShape, GivesItsValuesGetsTheNewOneAndKeepsEveryOtherByte, ()) {
  const File file = *rc::gen::exec(AnyFile);
  const std::string section = *SectionName();
  const std::string key = *Key();
  const std::string value = *Bytes();
  const std::string callersSection = *Blanks() + section + *Blanks();
  const std::string callersKey = *Blanks() + key + *Blanks();
  const std::string first = FirstValue(file, section, key);
  RC_ASSERT(first[0] == '"' || Read(Text(file), callersSection, callersKey) == first);
  const std::string alone = After("", "S", "k", value);
  const std::string stored = alone.substr(6, alone.size() - 7);  // of "[S]\nk=...\n"
  RC_ASSERT(stored.find_first_of("\r\n\0"s) == std::string::npos);
  const std::string after = After(Text(file), callersSection, callersKey, value);
  RC_ASSERT(after == Text(Edited(file, section, key, stored)));
  RC_ASSERT(Read(after, callersSection, callersKey) == value);
}

RC_GTEST_PROP(PropertiesIniOfAnyBytes, StaysAsItWasWhenNothingIsSet, ()) {
  const std::string text = *Bytes();
  RC_ASSERT(Loaded(text).Store(PATH, ""));
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
  const std::string after = After(text, section, key, value);
  RC_ASSERT(after == text || Read(after, section, key) == value);
}

// Some readers take a CR alone for a line end.
RC_GTEST_PROP(PropertiesIniOfAnyBytes, StandsWholeBelowTheHeadersLinesAsComments, ()) {
  const std::string top = *rc::gen::element(""s, BYTE_ORDER_MARK);
  const std::string text = *rc::gen::element(""s, "[S]\n"s, "[S]\r\n"s) + *Bytes();
  const std::string header = *Bytes();
  const std::string end = text.find("\r\n") < text.find('\n') ? "\r\n" : "\n";
  RC_ASSERT(Loaded(top + text).Store(PATH, header));
  std::string comments;
  for (const std::string& line : Lines(std::regex_replace(header, std::regex("\r\n?"), "\n"))) {
    comments += "# " + line + end;
  }
  RC_ASSERT(ReadText(PATH) == top + comments + text);
}

// ---- Examples

TEST(PropertiesIniName, ThatNoLineCouldHoldChangesNothingAndHasNoValue) {
  const std::string text = "[S]\nk=300\n=1\n[k=1\n;k=1\n#k=1\n";
  for (const std::string& section : {"S\n"s, "\rS"s, "S\0"s, "S]"s, "]"s, "S]\n[T"s}) {
    EXPECT_EQ(After(text, section, "k", "500"), text) << section;
    EXPECT_EQ(After(text, section, "new", "500"), text) << section;
  }
  for (const std::string& key :
       {"k\n"s, "k\r"s, "\0k"s, ""s, " \t"s, "k=1"s, "=k"s, "[k"s, ";k"s, "#k"s, " ;k"s, "k\na"s}) {
    EXPECT_EQ(After(text, "S", key, "500"), text) << key;
    EXPECT_EQ(Read(text, "S", key), "") << key;
  }
  // At the top of a file it would be the file's.
  EXPECT_EQ(After("", "", BYTE_ORDER_MARK + "k", "500"), "");
}

TEST(PropertiesIniQuotes, StandOnlyWhereTheyAreNeeded) {
  const std::vector<std::pair<std::string, std::string>> quoted = {
      {" a", R"(" a")"},
      {"a\t", "\"a\t\""},
      {" ", R"(" ")"},
      {"\"", R"("\"")"},
      {"\"a\"", R"("\"a\"")"},
      {"a\nb", R"("a\nb")"},
      {"a\rb", R"("a\rb")"},
      {"a\0b"s, R"("a\0b")"},
      {"\n[T]\r\nk=1\n", R"("\n[T]\r\nk=1\n")"},
      {"C:\\new\\\n", R"("C:\\new\\\n")"},
      {" a\\\"", R"(" a\\\"")"}};
  for (const auto& [value, stored] : quoted) {
    EXPECT_EQ(After("", "S", "k", value), "[S]\nk=" + stored + "\n");
  }
  for (const std::string& value :
       {""s, "500"s, "-1"s, "a b"s, "a\tb"s, "a\"b\""s, "'a'"s, "C:\\new"s, "a=b"s, "[T]"s, ";a"s,
        "#a"s, "a\\"s, "\x01\x7f\xff"s}) {
    EXPECT_EQ(After("", "S", "k", value), "[S]\nk=" + value + "\n");
  }
}

TEST(PropertiesIniGetProperty, GivesWhatStandsInQuotes) {
  const std::vector<std::pair<std::string, std::string>> values = {
      {R"("300")", "300"},
      {R"( " 300 " )", " 300 "},
      {R"("")", ""},
      {R"("\"\\\n\r\0")", "\"\\\n\r\0"s},
      {"\"a\rb\"", "a\rb"},
      // A backslash that is not ours; outside quotes it means nothing.
      {R"("C:\temp\x")", R"(C:\temp\x)"},
      {R"(C:\\new\n)", R"(C:\\new\n)"}};
  for (const auto& [stored, value] : values) {
    EXPECT_EQ(Read("[S]\nk=" + stored + "\n", "S", "k"), value) << stored;
  }
  // Quotes that do not enclose the value are part of it.
  for (const std::string stored : {R"(")", R"("300)", R"("300\")", R"("a" and "b")", R"("a"b)",
                                   R"("a" ; b)", R"(a")", R"("\)"}) {
    EXPECT_EQ(Read("[S]\nk=" + stored + "\n", "S", "k"), stored);
  }
}

class PropertiesIniFile : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(folder);
    fs::create_directories(folder);
  }
  void TearDown() override { fs::remove_all(folder); }

  const fs::path folder = fs::path(PATH).parent_path();
  PropertiesIni settings;
};

TEST_F(PropertiesIniFile, ThatIsMissingIsAnEmptyOne) {
  EXPECT_EQ(settings.GetProperty("S", "k"), "");
  EXPECT_TRUE(settings.Load(PATH));
  settings.SetProperty("S", "k", "500");
  EXPECT_FALSE(fs::exists(PATH)) << "nothing is written before it is stored";
  EXPECT_TRUE(settings.Store(PATH, ""));
  EXPECT_EQ(ReadText(PATH), "[S]\nk=500\n");
}

TEST_F(PropertiesIniFile, ReplacesWhatTheObjectHeld) {
  settings.SetProperty("S", "k", " \n");
  settings.SetProperty("S", "k", "3\n");
  EXPECT_EQ(settings.GetProperty("S", "k"), "3\n");
  WriteText(PATH, "[S]\na=2\n");
  EXPECT_TRUE(settings.Load(PATH));
  EXPECT_EQ(settings.GetProperty("S", "k"), "");
  EXPECT_EQ(settings.GetProperty("S", "a"), "2");
  EXPECT_TRUE(settings.Load(folder / "missing"));
  EXPECT_EQ(settings.GetProperty("S", "a"), "");
}

TEST_F(PropertiesIniFile, ThatMayNotBeReadIsLeftAloneHoweverItIsCalled) {
  WriteText(PATH, "[S]\nk=300\n");
  fs::create_symlink(PATH, folder / "link");
  fs::permissions(PATH, fs::perms(0));
  EXPECT_FALSE(settings.Load(PATH));
  settings.SetProperty("S", "k", "500");
  EXPECT_FALSE(settings.Store(PATH, ""));
  EXPECT_FALSE(settings.Store(PATH, "header"));
  EXPECT_FALSE(settings.Store(folder / "." / "settings.ini", ""));
  EXPECT_FALSE(settings.Store(folder / "link", ""));
  EXPECT_FALSE(settings.Load(folder));
  EXPECT_TRUE(settings.Load(folder / "missing"));
  EXPECT_FALSE(settings.Store(PATH, "")) << "though others were loaded since";

  fs::permissions(PATH, fs::perms(0600));
  EXPECT_EQ(ReadText(PATH), "[S]\nk=300\n");
  EXPECT_TRUE(settings.Load(PATH));
  settings.SetProperty("S", "k", "500");
  EXPECT_TRUE(settings.Store(PATH, "")) << "once it could be read";
  EXPECT_EQ(ReadText(PATH), "[S]\nk=500\n");
}

TEST_F(PropertiesIniFile, ThatCannotBeReadLeavesTheObjectEmptyAndToBeStoredElsewhere) {
  settings.SetProperty("S", "a", "1");
  EXPECT_FALSE(settings.Load(folder));
  settings.SetProperty("S", "k", "500");
  EXPECT_TRUE(settings.Store(PATH, ""));
  EXPECT_EQ(ReadText(PATH), "[S]\nk=500\n");
}

TEST_F(PropertiesIniFile, ThatCannotBeWrittenIsReported) {
  EXPECT_FALSE(settings.Store(folder / "missing" / "settings.ini", ""));
  EXPECT_FALSE(fs::exists(folder / "missing"));
}

TEST_F(PropertiesIniFile, IsStoredFromAnObjectThatKeepsItsTextButNoHeader) {
  settings.SetProperty("S", "k", "500");
  EXPECT_TRUE(settings.Store(PATH, "one"));
  EXPECT_TRUE(settings.Store(folder / "copy", "two"));
  EXPECT_EQ(ReadText(folder / "copy"), "# two\n[S]\nk=500\n");
  EXPECT_EQ(settings.GetProperty("S", "k"), "500");
}

TEST_F(PropertiesIniFile, OfTwoThatLoadedItTheLaterStoreWinsWhole) {
  WriteText(PATH, "[S]\na=0\nb=0\n");
  PropertiesIni other;
  settings.Load(PATH);
  other.Load(PATH);
  other.SetProperty("S", "a", "1");
  EXPECT_TRUE(other.Store(PATH, ""));
  settings.SetProperty("S", "b", "2");
  EXPECT_TRUE(settings.Store(PATH, ""));
  EXPECT_EQ(ReadText(PATH), "[S]\na=0\nb=2\n") << "nobody's lock kept the other's change";
}

}  // namespace
