// Examples to be read, and what is too rare for chance. That this holds for files of every shape is
// proved in PropertiesIniPropertyTest.cpp.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Files.h"
#include "PropertiesIni.h"

namespace {

namespace fs = std::filesystem;

using std::string_literals::operator""s;

const std::string PATH = "/tmp/settings/settings.ini";
const std::string BYTE_ORDER_MARK = "\xEF\xBB\xBF";

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

std::string AfterHeader(const std::string& before, const std::string& header) {
  EXPECT_TRUE(Loaded(before).Store(PATH, header));
  return ReadText(PATH);
}

// ---- Setting a value

struct Edit {
  std::string before;
  std::string after;
  std::string section = "S";
  std::string key = "k";
  std::string value = "500";
};

void ExpectEdits(const std::vector<Edit>& edits) {
  for (const Edit& edit : edits) {
    PropertiesIni settings = Loaded(edit.before);
    settings.SetProperty(edit.section, edit.key, edit.value);
    EXPECT_TRUE(settings.Store(PATH, ""));
    EXPECT_EQ(ReadText(PATH), edit.after) << testing::PrintToString(edit.before);
  }
}

TEST(PropertiesIniValue, IsReplacedWhereItStandsAndNoOtherByteChanges) {
  ExpectEdits(
      {{"; k=1\n[S] ; of the runtime\n  k \t= \t300 ; \t\nk=2\n[T]\nk=3\n",
        "; k=1\n[S] ; of the runtime\n  k \t= \t500 \t\nk=500\n[T]\nk=3\n"},
       {"[S]\r\nk=\r\n", "[S]\r\nk=500\r\n"},
       {"[S]\nk=\"1\" and more\n", "[S]\nk=500\n"},
       {"k=1\n[S]\nk=2\n[]\nk=3\n", "k=500\n[S]\nk=2\n[]\nk=500\n", ""},
       // Lines that mean nothing: a section without an end, a key without an equals sign.
       {"[S]\nk\n!include k\nk: 1\n[T\nk=300\n]\n", "[S]\nk\n!include k\nk: 1\n[T\nk=500\n]\n"},
       // A CR alone, also as the last byte.
       {"[S]\na=1\rk=2\nk=3\r", "[S]\na=1\rk=2\nk=500\r"}});
}

TEST(PropertiesIniNewKey, GoesBehindTheLastLineOfTheLastSectionOfThatNameButBlankLines) {
  ExpectEdits(
      {{"[S]\na=1\n[T]\n[S]\nb=2\n\n \t\n[U]\n", "[S]\na=1\n[T]\n[S]\nb=2\nk=500\n\n \t\n[U]\n"},
       {"[S]\na=1", "[S]\na=1\nk=500"},
       {"[S]\r\na=1\r", "[S]\r\na=1\r\nk=500"}});
}

TEST(PropertiesIniNewSection, GoesToTheEndBehindOneBlankLine) {
  ExpectEdits({{"[T]\nk=1\n", "[T]\nk=1\n\n[S]\nk=500\n"},
               {"[T]\nk=1\n \t\n", "[T]\nk=1\n \t\n[S]\nk=500\n"},
               // The line end is that of the first line; the final one stays missing.
               {"[T]\r\nk=1\r", "[T]\r\nk=1\r\n\r\n[S]\r\nk=500"}});
}

// ---- Names

TEST(PropertiesIniName, IsTakenWithoutItsOuterBlanksAndMayHoldBlanksAndMarksInside) {
  ExpectEdits({{"[S]\nk=1\n", "[S]\nk=500\n", " S\t", "\tk "},
               {"", "[S]\nk=500\n", " S\t", "\tk "},
               {"", "[S = #1 [a]\nk ;[]\"=500\n", "S = #1 [a", "k ;[]\""}});
  EXPECT_EQ(Read("[ S\t]\n k\t=1\n", "S ", " k"), "1");
  EXPECT_EQ(Read("[S = #1 [a]\nk ;[]\"=500\n", "S = #1 [a", "k ;[]\""), "500");
}

TEST(PropertiesIniName, ThatNoLineCouldHoldChangesNothing) {
  const std::string text = "[S]\nk=300\n=1\n";
  for (const std::string& section : {"S\n"s, "\rS"s, "S\0"s, "S]"s, "]"s, "S]\n[T"s}) {
    ExpectEdits({{text, text, section, "k"}, {text, text, section, "new"}});
  }
  for (const std::string& key :
       {"k\n"s, "k\r"s, "\0k"s, ""s, " \t"s, "k=1"s, "=k"s, "[k"s, ";k"s, "#k"s, " ;k"s, "k\na"s}) {
    ExpectEdits({{text, text, "S", key}});
  }
  // At the top of a file it would be the file's.
  ExpectEdits({{"", "", "", BYTE_ORDER_MARK + "k"}});
}

// ---- Values in quotes, and not

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
    ExpectEdits({{"", "[S]\nk=" + stored + "\n", "S", "k", value}});
  }
  for (const std::string& value :
       {""s, "500"s, "-1"s, "a b"s, "a\tb"s, "a\"b\""s, "'a'"s, "C:\\new"s, "a=b"s, "[T]"s, ";a"s,
        "#a"s, "a\\"s, "\x01\x7f\xff"s}) {
    ExpectEdits({{"", "[S]\nk=" + value + "\n", "S", "k", value}});
  }
  // In place of those that were there.
  ExpectEdits({{"[S]\nk = \"a b\" \n", "[S]\nk = \" c\" \n", "S", "k", " c"},
               {"[S]\nk = \"a b\" \n", "[S]\nk = 500 \n"}});
}

// ---- Reading

struct Reading {
  std::string text;
  std::string value;
  std::string section = "S";
  std::string key = "k";
};

TEST(PropertiesIniGetProperty, GivesTheFirstOfSeveralAndNothingForWhatIsAbsent) {
  const std::vector<Reading> readings = {{"[T]\nk=0\n[S]\nk=1\nk=2\n[S]\nk=3\n", "1"},
                                         {BYTE_ORDER_MARK + "[S]\nk=1\n", "1"},
                                         {BYTE_ORDER_MARK + "k=1\n", "1", ""},
                                         {"[S]\nk=1\n", "", "S", "a"},
                                         {"[S]\nk=1\n", "", "T", "k"},
                                         {"[S]\nk=1\n", "", "", "k"},
                                         {"[S]\n;k=1\nk\n", ""},
                                         {"[S]\n;k=1\n#k=1\n", "", "S", ";k"},
                                         {"[S]\n[T]=1\n", "", "T", "[T]"},
                                         // Names that no line could hold.
                                         {"=5\n[x=6\n", "", "", ""},
                                         {"=5\n[x=6\n", "", "", "[x"}};
  for (const Reading& reading : readings) {
    EXPECT_EQ(Read(reading.text, reading.section, reading.key), reading.value) << reading.text;
  }
  EXPECT_EQ(PropertiesIni().GetProperty("S", "k"), "");
}

TEST(PropertiesIniGetProperty, GivesTheValueWithoutBlanksOrWhatStandsInQuotes) {
  const std::vector<std::pair<std::string, std::string>> values = {
      {" \t300 4\t ", "300 4"},
      {" 300 \r", "300"},
      {"", ""},
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

// ---- The header

TEST(PropertiesIniHeader, StandsInCommentsAtTheTopWhateverItsLineEnds) {
  EXPECT_EQ(AfterHeader(BYTE_ORDER_MARK + "[S]\n", "one"), BYTE_ORDER_MARK + "# one\n[S]\n");
  EXPECT_EQ(AfterHeader("[S]\r\n", "one\ntwo\r\n"), "# one\r\n# two\r\n[S]\r\n");
  EXPECT_EQ(AfterHeader("a=1\n", "one\n\n[S]\rb=2\n"), "# one\n# \n# [S]\n# b=2\na=1\n");
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
