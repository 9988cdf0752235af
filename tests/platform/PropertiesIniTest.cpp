#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Files.h"
#include "PropertiesIni.h"

namespace {

using std::string_literals::operator""s;

const std::string PATH = "/tmp/settings/settings.ini";
const std::string BYTE_ORDER_MARK = "\xEF\xBB\xBF";

// What becomes of a file with this text when the property is set.
std::string After(const std::string& before, const std::string& section, const std::string& key,
                  const std::string& value) {
  WriteText(PATH, before);
  PropertiesIni settings;
  EXPECT_TRUE(settings.Load(PATH));
  settings.SetProperty(section, key, value);
  EXPECT_TRUE(settings.Store(PATH, ""));
  return ReadText(PATH);
}

// The same of the property that these tests are about: key k in section S becomes 500.
std::string After(const std::string& before) {
  return After(before, "S", "k", "500");
}

// How a value stands in the file.
std::string Stored(const std::string& value) {
  const std::string text = After("", "S", "k", value);
  const std::string start = "[S]\nk=";
  EXPECT_EQ(text.substr(0, start.size()), start);
  EXPECT_THAT(text, testing::EndsWith("\n"));
  return text.substr(start.size(), text.find_last_of('\n') - start.size());
}

// What a fresh object reads in a file with this text.
std::string Read(const std::string& text, const std::string& section, const std::string& key) {
  WriteText(PATH, text);
  PropertiesIni settings;
  EXPECT_TRUE(settings.Load(PATH));
  return settings.GetProperty(section, key);
}

// What a file with this text says of the value `stored`.
std::string ReadValue(const std::string& stored) {
  return Read("[S]\nk=" + stored + "\n", "S", "k");
}

std::string AfterHeader(const std::string& before, const std::string& header) {
  WriteText(PATH, before);
  PropertiesIni settings;
  EXPECT_TRUE(settings.Load(PATH));
  EXPECT_TRUE(settings.Store(PATH, header));
  return ReadText(PATH);
}

TEST(PropertiesIniValue, IsReplacedAlone) {
  EXPECT_EQ(After("[S]\na=1\nk=300\nb=2\n[T]\nc=3\n"), "[S]\na=1\nk=500\nb=2\n[T]\nc=3\n");
}

TEST(PropertiesIniValue, IsReplacedWhateverItsLength) {
  EXPECT_EQ(After("[S]\nk=a much longer one\nb=2\n"), "[S]\nk=500\nb=2\n");
  EXPECT_EQ(After("[S]\nk=1\nb=2\n"), "[S]\nk=500\nb=2\n");
  EXPECT_EQ(After("[S]\nk=\nb=2\n"), "[S]\nk=500\nb=2\n");
  EXPECT_EQ(After("[S]\nk=1\nb=2\n", "S", "k", ""), "[S]\nk=\nb=2\n");
}

TEST(PropertiesIniValue, IsReplacedInEveryOccurrence) {
  EXPECT_EQ(After("[S]\nk=1\nk=2\na=0\nk = 3\n"), "[S]\nk=500\nk=500\na=0\nk = 500\n");
}

TEST(PropertiesIniValue, IsReplacedInEveryPieceOfTheSection) {
  EXPECT_EQ(After("[S]\nk=1\n[T]\nk=2\n[S]\na=3\n[S]\nk=4\n"),
            "[S]\nk=500\n[T]\nk=2\n[S]\na=3\n[S]\nk=500\n");
}

TEST(PropertiesIniValue, StaysInOtherSections) {
  EXPECT_EQ(After("k=0\n[T]\nk=1\n[S]\nk=2\n[U]\nk=3\n"), "k=0\n[T]\nk=1\n[S]\nk=500\n[U]\nk=3\n");
}

TEST(PropertiesIniValue, StaysInASectionWhoseNameOnlyBeginsAlike) {
  EXPECT_EQ(After("[SS]\nk=1\n[S]\nk=2\n[S S]\nk=3\n"), "[SS]\nk=1\n[S]\nk=500\n[S S]\nk=3\n");
  EXPECT_EQ(After("[SS]\nk=1\n", "S", "k", "500"), "[SS]\nk=1\n\n[S]\nk=500\n");
}

TEST(PropertiesIniValue, StaysAtAKeyThatOnlyBeginsAlike) {
  EXPECT_EQ(After("[S]\nkk=1\nk=2\nk k=3\n"), "[S]\nkk=1\nk=500\nk k=3\n");
}

TEST(PropertiesIniValue, StaysWhereTheLetterCaseDiffers) {
  EXPECT_EQ(After("[s]\nk=1\n[S]\nK=2\nk=3\n"), "[s]\nk=1\n[S]\nK=2\nk=500\n");
}

TEST(PropertiesIniValue, OfAKeyBeforeEverySectionIsInTheSectionWithoutAName) {
  EXPECT_EQ(After("k=1\n[S]\nk=2\n", "", "k", "500"), "k=500\n[S]\nk=2\n");
  EXPECT_EQ(After("k=1\n[S]\nk=2\n[]\nk=3\n", "", "k", "500"), "k=500\n[S]\nk=2\n[]\nk=500\n");
}

TEST(PropertiesIniValue, IsTheRestOfItsLine) {
  EXPECT_EQ(After("[S]\nk=1 ; no comment # either\n"), "[S]\nk=500\n");
  EXPECT_EQ(After("[S]\nk=1=2\n"), "[S]\nk=500\n");
  EXPECT_EQ(After("[S]\nk=\"1\" and more\n"), "[S]\nk=500\n");
  EXPECT_EQ(After("[S]\nk=[T]\na=1\n"), "[S]\nk=500\na=1\n");
}

TEST(PropertiesIniText, KeepsBlanksAroundNamesAndValues) {
  EXPECT_EQ(After("\t[ S ]\n  k \t= \t300 \t\nb=2\n"), "\t[ S ]\n  k \t= \t500 \t\nb=2\n");
}

TEST(PropertiesIniText, PutsAFirstValueBehindTheBlanks) {
  EXPECT_EQ(After("[S]\nk = \n"), "[S]\nk = 500\n");
  EXPECT_EQ(After("[S]\r\nk =\t\r\n"), "[S]\r\nk =\t500\r\n");
}

TEST(PropertiesIniText, KeepsEveryLineEnd) {
  EXPECT_EQ(After("[S]\r\na=1\r\nk=300\r\n"), "[S]\r\na=1\r\nk=500\r\n");
  EXPECT_EQ(After("[S]\r\nk=1\nk=2\r\n\n\r\n"), "[S]\r\nk=500\nk=500\r\n\n\r\n");
}

TEST(PropertiesIniText, KeepsACarriageReturnWithinALine) {
  EXPECT_EQ(After("[S]\na=1\rk=2\nk=3\n"), "[S]\na=1\rk=2\nk=500\n");
}

TEST(PropertiesIniText, KeepsAMissingFinalNewline) {
  EXPECT_EQ(After("[S]\nk=300\na=1"), "[S]\nk=500\na=1");
  EXPECT_EQ(After("[S]\na=1\nk=300"), "[S]\na=1\nk=500");
  EXPECT_EQ(After("[S]\r\nk=300\r"), "[S]\r\nk=500\r");
}

TEST(PropertiesIniText, KeepsNulBytes) {
  EXPECT_EQ(After("\0\n[S]\na\0b=\0c\nk=1\0x\nd=\0\n"s), "\0\n[S]\na\0b=\0c\nk=500\nd=\0\n"s);
}

TEST(PropertiesIniText, KeepsAByteOrderMark) {
  EXPECT_EQ(After(BYTE_ORDER_MARK + "[S]\nk=300\n"), BYTE_ORDER_MARK + "[S]\nk=500\n");
  EXPECT_EQ(After(BYTE_ORDER_MARK + "k=300\n", "", "k", "500"), BYTE_ORDER_MARK + "k=500\n");
}

TEST(PropertiesIniText, KeepsBytesOfEveryKind) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
  }
  EXPECT_EQ(After("[S]\nk=300\n[T]\n" + bytes), "[S]\nk=500\n[T]\n" + bytes);
}

TEST(PropertiesIniText, KeepsComments) {
  EXPECT_EQ(After("; k=1\n[S]\n;k=2\n # k=3\n\t;[T]\nk=4\n#[S]\n"),
            "; k=1\n[S]\n;k=2\n # k=3\n\t;[T]\nk=500\n#[S]\n");
}

TEST(PropertiesIniText, KeepsLinesOfUnknownMeaning) {
  EXPECT_EQ(After("hello\n[S]\nk\n!include k\nk: 1\n[S\nk=300\n]\n"),
            "hello\n[S]\nk\n!include k\nk: 1\n[S\nk=500\n]\n");
}

TEST(PropertiesIniText, KeepsBlankLines) {
  EXPECT_EQ(After("\n\n[S]\n\n \t\nk=300\n\n\n"), "\n\n[S]\n\n \t\nk=500\n\n\n");
}

TEST(PropertiesIniText, MayHaveMoreBehindTheNameOfASection) {
  EXPECT_EQ(After("[S] ; of the runtime\nk=300\n"), "[S] ; of the runtime\nk=500\n");
  EXPECT_EQ(After("[S]]\nk=300\n[T]=[S]\nk=1\n"), "[S]]\nk=500\n[T]=[S]\nk=1\n");
}

TEST(PropertiesIniText, IsTheSameWhenTheSameIsSetAgain) {
  const std::string once = After("[S]\nk = 300 \n");
  EXPECT_EQ(After(once), once);
}

TEST(PropertiesIniNewKey, GoesBehindTheLastLineOfItsSection) {
  EXPECT_EQ(After("[S]\na=1\n[T]\nb=2\n"), "[S]\na=1\nk=500\n[T]\nb=2\n");
  EXPECT_EQ(After("[S]\n[T]\n"), "[S]\nk=500\n[T]\n");
  EXPECT_EQ(After("[T]\n[S]\na=1\n"), "[T]\n[S]\na=1\nk=500\n");
}

TEST(PropertiesIniNewKey, GoesBeforeTheBlankLinesThatEndItsSection) {
  EXPECT_EQ(After("[S]\na=1\n\nb=2\n\n \t\n[T]\n"), "[S]\na=1\n\nb=2\nk=500\n\n \t\n[T]\n");
  EXPECT_EQ(After("[S]\na=1\n\n\n"), "[S]\na=1\nk=500\n\n\n");
}

TEST(PropertiesIniNewKey, GoesBehindCommentsAndUnknownLines) {
  EXPECT_EQ(After("[S]\na=1\n;k=1\n[T]\n"), "[S]\na=1\n;k=1\nk=500\n[T]\n");
  EXPECT_EQ(After("[S]\nk\n\n[T]\n"), "[S]\nk\nk=500\n\n[T]\n");
}

TEST(PropertiesIniNewKey, GoesToTheLastSectionOfThatName) {
  EXPECT_EQ(After("[S]\na=1\n[T]\n[S]\nb=2\n[U]\n"), "[S]\na=1\n[T]\n[S]\nb=2\nk=500\n[U]\n");
}

TEST(PropertiesIniNewKey, HasTheLineEndOfTheFile) {
  EXPECT_EQ(After("[S]\r\na=1\r\n[T]\r\n"), "[S]\r\na=1\r\nk=500\r\n[T]\r\n");
  EXPECT_EQ(After("\r\n[S]\r\na=1"), "\r\n[S]\r\na=1\r\nk=500");
}

TEST(PropertiesIniNewKey, IsTheLastLineWithoutANewlineInPlaceOfTheOldOne) {
  EXPECT_EQ(After("[S]\na=1"), "[S]\na=1\nk=500");
  EXPECT_EQ(After("[S]"), "[S]\nk=500");
  EXPECT_EQ(After("[S]\r\na=1\r"), "[S]\r\na=1\r\nk=500");
  EXPECT_EQ(After("[S]\na=1\n\n "), "[S]\na=1\nk=500\n\n ");
}

TEST(PropertiesIniNewKey, OfTheSectionWithoutANameGoesBeforeTheFirstSection) {
  EXPECT_EQ(After("", "", "k", "500"), "k=500\n");
  EXPECT_EQ(After("[S]\n", "", "k", "500"), "k=500\n[S]\n");
  EXPECT_EQ(After("; top\n\n[S]\n", "", "k", "500"), "; top\nk=500\n\n[S]\n");
  EXPECT_EQ(After(BYTE_ORDER_MARK, "", "k", "500"), BYTE_ORDER_MARK + "k=500\n");
  EXPECT_EQ(After(BYTE_ORDER_MARK + "[S]\n", "", "k", "500"), BYTE_ORDER_MARK + "k=500\n[S]\n");
}

TEST(PropertiesIniNewSection, GoesToTheEndBehindABlankLine) {
  EXPECT_EQ(After("[T]\nk=1\n"), "[T]\nk=1\n\n[S]\nk=500\n");
  EXPECT_EQ(After("; only a comment\n"), "; only a comment\n\n[S]\nk=500\n");
}

TEST(PropertiesIniNewSection, NeedsNoSecondBlankLine) {
  EXPECT_EQ(After("[T]\nk=1\n\n"), "[T]\nk=1\n\n[S]\nk=500\n");
  EXPECT_EQ(After("[T]\nk=1\n \t\n"), "[T]\nk=1\n \t\n[S]\nk=500\n");
  EXPECT_EQ(After("\n"), "\n[S]\nk=500\n");
}

TEST(PropertiesIniNewSection, BeginsAnEmptyFile) {
  EXPECT_EQ(After(""), "[S]\nk=500\n");
  EXPECT_EQ(After(BYTE_ORDER_MARK), BYTE_ORDER_MARK + "[S]\nk=500\n");
}

TEST(PropertiesIniNewSection, HasTheLineEndOfTheFile) {
  EXPECT_EQ(After("[T]\r\nk=1\r\n"), "[T]\r\nk=1\r\n\r\n[S]\r\nk=500\r\n");
  EXPECT_EQ(After("[T]\r\nk=1\n"), "[T]\r\nk=1\n\r\n[S]\r\nk=500\r\n") << "that of the first line";
}

TEST(PropertiesIniNewSection, LeavesTheFinalNewlineMissing) {
  EXPECT_EQ(After("[T]\nk=1"), "[T]\nk=1\n\n[S]\nk=500");
  EXPECT_EQ(After("[T]\r\nk=1"), "[T]\r\nk=1\r\n\r\n[S]\r\nk=500");
  EXPECT_EQ(After("[T]\r\nk=1\r"), "[T]\r\nk=1\r\n\r\n[S]\r\nk=500");
  EXPECT_EQ(After("[T]\n "), "[T]\n \n[S]\nk=500");
}

TEST(PropertiesIniName, IsTakenWithoutItsOuterBlanks) {
  EXPECT_EQ(After("[S]\nk=1\n", " S\t", "\tk ", "500"), "[S]\nk=500\n");
  EXPECT_EQ(After("", " S\t", "\tk ", "500"), "[S]\nk=500\n");
  EXPECT_EQ(Read("[ S\t]\n k\t=1\n", "S ", " k"), "1");
}

TEST(PropertiesIniName, MayHoldBlanksAndMarksInside) {
  EXPECT_EQ(After("", "S = #1 [a", "k ;[]\"", "500"), "[S = #1 [a]\nk ;[]\"=500\n");
  EXPECT_EQ(Read("[S = #1 [a]\nk ;[]\"=500\n", "S = #1 [a", "k ;[]\""), "500");
}

TEST(PropertiesIniName, ThatNoSectionLineCouldHoldChangesNothing) {
  const std::string text = "[S]\nk=300\n";
  for (const std::string& section : {"S\n"s, "\rS"s, "S\0"s, "S]"s, "]"s, "S]\n[T"s}) {
    EXPECT_EQ(After(text, section, "k", "500"), text) << testing::PrintToString(section);
    EXPECT_EQ(After(text, section, "new", "500"), text) << testing::PrintToString(section);
  }
}

TEST(PropertiesIniName, ThatNoKeyLineCouldHoldChangesNothing) {
  const std::string text = "[S]\nk=300\n=1\n";
  for (const std::string& key :
       {"k\n"s, "k\r"s, "\0k"s, ""s, " \t"s, "k=1"s, "=k"s, "[k"s, ";k"s, "#k"s, " ;k"s, "k\na"s}) {
    EXPECT_EQ(After(text, "S", key, "500"), text) << testing::PrintToString(key);
  }
}

// At the top of a file it would be the file's.
TEST(PropertiesIniName, ThatBeginsWithAByteOrderMarkChangesNothing) {
  EXPECT_EQ(After("", "", BYTE_ORDER_MARK + "k", "500"), "");
}

TEST(PropertiesIniQuotes, AreLeftOutWhereTheyAreNotNeeded) {
  for (const std::string& value :
       {""s, "500"s, "-1"s, "a b"s, "a\tb"s, "a\"b\""s, "'a'"s, "C:\\new"s, "a=b"s, "[T]"s, ";a"s,
        "#a"s, "a\\"s, "\x01\x7f\xff"s}) {
    EXPECT_EQ(Stored(value), value);
  }
}

TEST(PropertiesIniQuotes, EncloseOuterBlanks) {
  EXPECT_EQ(Stored(" a"), "\" a\"");
  EXPECT_EQ(Stored("a\t"), "\"a\t\"");
  EXPECT_EQ(Stored(" "), "\" \"");
}

TEST(PropertiesIniQuotes, EncloseAFirstQuote) {
  EXPECT_EQ(Stored("\""), R"("\"")");
  EXPECT_EQ(Stored("\"a\""), R"("\"a\"")");
}

TEST(PropertiesIniQuotes, EncloseLineBreakers) {
  EXPECT_EQ(Stored("a\nb"), R"("a\nb")");
  EXPECT_EQ(Stored("a\rb"), R"("a\rb")");
  EXPECT_EQ(Stored("a\0b"s), R"("a\0b")");
  EXPECT_EQ(Stored("\n[T]\r\nk=1\n"), R"("\n[T]\r\nk=1\n")");
}

TEST(PropertiesIniQuotes, ComeWithBackslashesThatAreDoubled) {
  EXPECT_EQ(Stored("C:\\new\\\n"), R"("C:\\new\\\n")");
  EXPECT_EQ(Stored(" a\\\""), R"(" a\\\"")");
}

TEST(PropertiesIniQuotes, ReplaceThoseThatWereThere) {
  EXPECT_EQ(After("[S]\nk = \"a b\" \n", "S", "k", " c"), "[S]\nk = \" c\" \n");
  EXPECT_EQ(After("[S]\nk = \"a b\" \n"), "[S]\nk = 500 \n");
}

TEST(PropertiesIniGetProperty, GivesTheValueWithoutItsOuterBlanks) {
  EXPECT_EQ(ReadValue(" \t300 4\t "), "300 4");
  EXPECT_EQ(ReadValue(" 300 \r"), "300");
  EXPECT_EQ(ReadValue(""), "");
}

TEST(PropertiesIniGetProperty, GivesNothingForWhatIsAbsent) {
  EXPECT_EQ(Read("[S]\nk=1\n", "S", "a"), "");
  EXPECT_EQ(Read("[S]\nk=1\n", "T", "k"), "");
  EXPECT_EQ(Read("[S]\nk=1\n", "", "k"), "");
  EXPECT_EQ(Read("[S]\n;k=1\nk\n", "S", "k"), "");
  EXPECT_EQ(Read("[S]\n;k=1\n#k=1\n", "S", ";k"), "");
  EXPECT_EQ(Read("[S]\n[T]=1\n", "T", "[T]"), "");
  EXPECT_EQ(PropertiesIni().GetProperty("S", "k"), "");
}

TEST(PropertiesIniGetProperty, GivesNothingForANameThatNoLineCouldHold) {
  EXPECT_EQ(Read("=5\n[x=6\n", "", ""), "");
  EXPECT_EQ(Read("=5\n[x=6\n", "", "[x"), "");
}

TEST(PropertiesIniGetProperty, GivesTheFirstOfSeveral) {
  EXPECT_EQ(Read("[T]\nk=0\n[S]\nk=1\nk=2\n[S]\nk=3\n", "S", "k"), "1");
}

TEST(PropertiesIniGetProperty, LooksBehindAByteOrderMark) {
  EXPECT_EQ(Read(BYTE_ORDER_MARK + "[S]\nk=1\n", "S", "k"), "1");
  EXPECT_EQ(Read(BYTE_ORDER_MARK + "k=1\n", "", "k"), "1");
}

TEST(PropertiesIniGetProperty, GivesWhatStandsInQuotes) {
  EXPECT_EQ(ReadValue(R"("300")"), "300");
  EXPECT_EQ(ReadValue(R"( " 300 " )"), " 300 ");
  EXPECT_EQ(ReadValue(R"("")"), "");
  EXPECT_EQ(ReadValue(R"("\"\\\n\r\0")"), "\"\\\n\r\0"s);
  EXPECT_EQ(ReadValue("\"a\rb\""), "a\rb");
}

TEST(PropertiesIniGetProperty, LeavesABackslashThatIsNotOurs) {
  EXPECT_EQ(ReadValue(R"("C:\temp\x")"), R"(C:\temp\x)");
  EXPECT_EQ(ReadValue(R"(C:\\new\n)"), R"(C:\\new\n)") << "outside quotes it means nothing";
}

TEST(PropertiesIniGetProperty, TakesQuotesThatDoNotEncloseTheValueAsPartOfIt) {
  for (const std::string stored : {R"(")", R"("300)", R"("300\")", R"("a" and "b")", R"("a"b)",
                                   R"("a" ; b)", R"(a")", R"("\)"}) {
    EXPECT_EQ(ReadValue(stored), stored);
  }
}

TEST(PropertiesIniGetProperty, GivesWhatWasSetBeforeItIsStored) {
  PropertiesIni settings;
  settings.SetProperty("S", "k", " \n");
  settings.SetProperty("T", "k", "2");
  settings.SetProperty("S", "k", "3\n");
  EXPECT_EQ(settings.GetProperty("S", "k"), "3\n");
  EXPECT_EQ(settings.GetProperty("T", "k"), "2");
}

TEST(PropertiesIniHeader, StandsInCommentsAtTheTop) {
  EXPECT_EQ(AfterHeader("[S]\nk=1\n", "one\ntwo"), "# one\n# two\n[S]\nk=1\n");
  EXPECT_EQ(AfterHeader("", "one"), "# one\n");
}

TEST(PropertiesIniHeader, WritesNothingWhenItIsEmpty) {
  EXPECT_EQ(AfterHeader("[S]\nk=1", ""), "[S]\nk=1");
}

TEST(PropertiesIniHeader, HasTheLineEndOfTheFile) {
  EXPECT_EQ(AfterHeader("[S]\r\n", "one\ntwo\r\n"), "# one\r\n# two\r\n[S]\r\n");
}

TEST(PropertiesIniHeader, KeepsItsBlankLines) {
  EXPECT_EQ(AfterHeader("[S]\n", "one\n\ntwo\n"), "# one\n# \n# two\n[S]\n");
}

TEST(PropertiesIniHeader, AddsNoKeyAndNoSection) {
  EXPECT_EQ(AfterHeader("k=1\n", "[S]\nk=2"), "# [S]\n# k=2\nk=1\n");
}

TEST(PropertiesIniHeader, StandsBehindAByteOrderMark) {
  EXPECT_EQ(AfterHeader(BYTE_ORDER_MARK + "[S]\n", "one"), BYTE_ORDER_MARK + "# one\n[S]\n");
}

TEST(PropertiesIniHeader, BreaksItsLinesAtEveryLineEnd) {
  EXPECT_EQ(AfterHeader("a=1\n", "one\ntwo\rb=2\r\nfour\n"), "# one\n# two\n# b=2\n# four\na=1\n");
}

TEST(PropertiesIniHeader, IsNotKeptForTheNextStore) {
  WriteText(PATH, "");
  PropertiesIni settings;
  settings.SetProperty("S", "k", "1");
  EXPECT_TRUE(settings.Store(PATH, "one"));
  EXPECT_TRUE(settings.Store(PATH, "two"));
  EXPECT_EQ(ReadText(PATH), "# two\n[S]\nk=1\n");
}

class PropertiesIniFile : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  const std::filesystem::path folder = std::filesystem::path(PATH).parent_path();
  PropertiesIni settings;
};

TEST_F(PropertiesIniFile, ThatIsMissingIsAnEmptyOne) {
  EXPECT_TRUE(settings.Load(PATH));
  settings.SetProperty("S", "k", "500");
  EXPECT_FALSE(std::filesystem::exists(PATH)) << "nothing is written before it is stored";
  EXPECT_TRUE(settings.Store(PATH, ""));
  EXPECT_EQ(ReadText(PATH), "[S]\nk=500\n");
}

TEST_F(PropertiesIniFile, ReplacesWhatTheObjectHeld) {
  settings.SetProperty("S", "k", "1");
  WriteText(PATH, "[S]\na=2\n");
  EXPECT_TRUE(settings.Load(PATH));
  EXPECT_EQ(settings.GetProperty("S", "k"), "");
  EXPECT_EQ(settings.GetProperty("S", "a"), "2");
  EXPECT_TRUE(settings.Load(folder / "missing"));
  EXPECT_EQ(settings.GetProperty("S", "a"), "");
}

TEST_F(PropertiesIniFile, OfAnyLengthIsReadWhole) {
  for (const std::size_t length : {65535u, 65536u, 65537u, 1000000u}) {
    const std::string comment = ";" + std::string(length, 'x') + "\n";
    EXPECT_EQ(After(comment + "[S]\nk=300\n" + comment), comment + "[S]\nk=500\n" + comment);
  }
}

TEST_F(PropertiesIniFile, ThatMayNotBeReadIsLeftAlone) {
  WriteText(PATH, "[S]\nk=300\n");
  std::filesystem::permissions(PATH, std::filesystem::perms(0));
  EXPECT_FALSE(settings.Load(PATH));
  settings.SetProperty("S", "k", "500");
  EXPECT_FALSE(settings.Store(PATH, ""));
  EXPECT_FALSE(settings.Store(PATH, "header"));
  std::filesystem::permissions(PATH, std::filesystem::perms(0600));
  EXPECT_EQ(ReadText(PATH), "[S]\nk=300\n");
}

TEST_F(PropertiesIniFile, ThatMayNotBeReadIsLeftAloneHoweverItIsCalled) {
  WriteText(PATH, "[S]\nk=300\n");
  std::filesystem::create_symlink(PATH, "/tmp/settings/link");
  std::filesystem::permissions(PATH, std::filesystem::perms(0));
  PropertiesIni settings;
  EXPECT_FALSE(settings.Load(PATH));
  EXPECT_FALSE(settings.Store("/tmp/settings/./settings.ini", ""));
  EXPECT_FALSE(settings.Store("/tmp/settings/link", ""));
  std::filesystem::permissions(PATH, std::filesystem::perms(0600));
  EXPECT_EQ(ReadText(PATH), "[S]\nk=300\n");
}

TEST_F(PropertiesIniFile, InAFolderThatMayNotBeSearchedIsUnreadable) {
  WriteText(PATH, "[S]\nk=300\n");
  std::filesystem::permissions(folder, std::filesystem::perms(0));
  EXPECT_FALSE(settings.Load(PATH));
  std::filesystem::permissions(folder, std::filesystem::perms(0755));
  EXPECT_FALSE(settings.Store(PATH, ""));
  EXPECT_EQ(ReadText(PATH), "[S]\nk=300\n");
}

TEST_F(PropertiesIniFile, BelowAnotherFileIsUnreadable) {
  WriteText(PATH, "[S]\n");
  EXPECT_FALSE(settings.Load(PATH + "/below"));
}

TEST_F(PropertiesIniFile, ThatIsAFolderIsUnreadable) {
  std::filesystem::create_directories(PATH);
  EXPECT_FALSE(settings.Load(PATH));
  EXPECT_FALSE(settings.Store(PATH, ""));
  EXPECT_TRUE(std::filesystem::is_directory(PATH));
}

TEST_F(PropertiesIniFile, ThatIsANamedPipeIsUnreadableAndNotWaitedFor) {
  ASSERT_EQ(mkfifo(PATH.c_str(), 0666), 0);
  EXPECT_FALSE(settings.Load(PATH));
  EXPECT_FALSE(settings.Store(PATH, ""));
  EXPECT_TRUE(std::filesystem::is_fifo(PATH));
}

TEST_F(PropertiesIniFile, ThatCannotBeReadLeavesTheObjectEmpty) {
  settings.SetProperty("S", "k", "1");
  EXPECT_FALSE(settings.Load(folder));
  EXPECT_EQ(settings.GetProperty("S", "k"), "");
}

TEST_F(PropertiesIniFile, CanBeStoredElsewhereWhenItCouldNotBeRead) {
  EXPECT_FALSE(settings.Load(folder));
  settings.SetProperty("S", "k", "500");
  EXPECT_TRUE(settings.Store(PATH, ""));
  EXPECT_EQ(ReadText(PATH), "[S]\nk=500\n");
}

TEST_F(PropertiesIniFile, IsStoredAgainOnceItCouldBeRead) {
  WriteText(PATH, "[S]\nk=300\n");
  std::filesystem::permissions(PATH, std::filesystem::perms(0));
  EXPECT_FALSE(settings.Load(PATH));
  std::filesystem::permissions(PATH, std::filesystem::perms(0600));
  EXPECT_TRUE(settings.Load(PATH));
  settings.SetProperty("S", "k", "500");
  EXPECT_TRUE(settings.Store(PATH, ""));
  EXPECT_EQ(ReadText(PATH), "[S]\nk=500\n");
}

TEST_F(PropertiesIniFile, StaysRefusedWhenOthersAreLoadedAfterIt) {
  WriteText(PATH, "[S]\nk=300\n");
  std::filesystem::permissions(PATH, std::filesystem::perms(0));
  EXPECT_FALSE(settings.Load(PATH));
  EXPECT_FALSE(settings.Load(folder));
  EXPECT_TRUE(settings.Load(folder / "missing"));
  EXPECT_FALSE(settings.Store(PATH, ""));
  std::filesystem::permissions(PATH, std::filesystem::perms(0600));
  EXPECT_EQ(ReadText(PATH), "[S]\nk=300\n");
}

TEST_F(PropertiesIniFile, ThatCannotBeWrittenIsReported) {
  EXPECT_FALSE(settings.Store(folder / "missing" / "settings.ini", ""));
  EXPECT_FALSE(std::filesystem::exists(folder / "missing"));
}

TEST_F(PropertiesIniFile, IsStoredFromAnObjectThatStaysAsItWas) {
  settings.SetProperty("S", "k", "500");
  EXPECT_TRUE(settings.Store(PATH, ""));
  EXPECT_TRUE(settings.Store(folder / "copy", ""));
  EXPECT_EQ(ReadText(folder / "copy"), "[S]\nk=500\n");
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
