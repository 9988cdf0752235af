// What the page takes for the value of its field, and what becomes of it: echoed and stored, byte
// for byte. Java has no part in it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Process.h"
#include "ProgramTest.h"
#include "Request.h"

namespace {

constexpr char FIELD[] = "CanDetectTimeout";
constexpr std::size_t MEBIBYTE = 1 << 20;
// The kernel hands no longer text than this to a program, name, end and all.
constexpr std::size_t LONGEST_QUERY = 131072 - sizeof "QUERY_STRING=";

// ---- In every way in which a form comes.

std::string PercentEncoded(const std::string& text) {
  std::string encoded;
  for (const unsigned char byte : text) {
    if (std::isalnum(byte) != 0) {
      encoded += static_cast<char>(byte);
    } else {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02X", byte);
      encoded += code;
    }
  }
  return encoded;
}

std::string UrlEncoded(const Fields& fields) {
  std::string encoded;
  for (const auto& [name, value] : fields) {
    encoded += (encoded.empty() ? "" : "&") + PercentEncoded(name) + "=" + PercentEncoded(value);
  }
  return encoded;
}

struct Way {
  const char* name;
  Command (*send)(const Fields& fields);
};

class FormInput : public testing::TestWithParam<Way> {
 protected:
  static Command Send(const Fields& fields) { return GetParam().send(fields); }
  static Command Send(const std::string& value) { return Send({{FIELD, value}}); }
};

TEST_P(FormInput, ANumberIsTaken) {
  ExpectTaken(Send("500"), "500");
}

TEST_P(FormInput, AnEmptyValueIsTaken) {
  ExpectTaken(Send(""), "");
}

TEST_P(FormInput, ANegativeNumberIsTaken) {
  ExpectTaken(Send("-1"), "-1");
}

TEST_P(FormInput, ATextIsTaken) {
  ExpectTaken(Send("a minute or two"), "a minute or two");
}

TEST_P(FormInput, ANumberBeyondEveryRangeIsTaken) {
  const std::string number(400, '9');
  ExpectTaken(Send(number), number);
}

TEST_P(FormInput, BlanksAroundTheValueAreKept) {
  ExpectTaken(Send(" 500\t"), " 500\t", "\" 500\t\"");
}

TEST_P(FormInput, MarkupIsTakenUnescaped) {
  const std::string markup = "<b>&amp;\"'</b>";
  ExpectTaken(Send(markup), markup);
}

TEST_P(FormInput, CharactersOfUrlsAndOfSettingsFilesAreTaken) {
  const std::string text = "a+b&c=d;e%41#f[g]\\n";
  ExpectTaken(Send(text), text);
}

TEST_P(FormInput, EveryByteButNulIsTaken) {
  std::string bytes = "x";
  std::string inFile = "\"x";
  for (int byte = 1; byte < 256; ++byte) {
    const char character = static_cast<char>(byte);
    bytes += character;
    switch (character) {
      case '\n':
        inFile += "\\n";
        break;
      case '\r':
        inFile += "\\r";
        break;
      case '"':
      case '\\':
        inFile += '\\';
        [[fallthrough]];
      default:
        inFile += character;
    }
  }
  ExpectTaken(Send(bytes), bytes, inFile + "\"");
}

TEST_P(FormInput, NulIsTaken) {
  const std::string text("a\0b", 3);
  ExpectTaken(Send(text), text, "\"a\\0b\"");
}

TEST_P(FormInput, ALineEndIsEchoedRawAndAddsNoSetting) {
  const std::string lines = "500\r\nVEMODOther=1\n[OTHER]";
  ExpectTaken(Send(lines), lines, "\"500\\r\\nVEMODOther=1\\n[OTHER]\"");
}

TEST_P(FormInput, OfAFieldGivenTwiceTheFirstIsTaken) {
  ExpectTaken(Send(Fields{{FIELD, "first"}, {FIELD, "second"}}), "first");
}

TEST_P(FormInput, AnEmptyFirstFieldIsTakenAllTheSame) {
  ExpectTaken(Send(Fields{{FIELD, ""}, {FIELD, "second"}}), "");
}

TEST_P(FormInput, TheNameMayBeInAnyLetterCase) {
  ExpectTaken(Send(Fields{{"cANdETECTtIMEOUT", "500"}}), "500");
}

TEST_P(FormInput, TheFirstIsTheFirstInAnyLetterCase) {
  ExpectTaken(Send(Fields{{"candetecttimeout", "first"}, {FIELD, "second"}}), "first");
}

TEST_P(FormInput, OtherFieldsAreIgnored) {
  ExpectTaken(Send(Fields{{"Other", "1"}, {FIELD, "500"}, {"VEMODCanDetectTimeout", "2"}}), "500");
}

TEST_P(FormInput, NoFieldIsAbsent) {
  ExpectAbsent(Send(Fields{}));
}

TEST_P(FormInput, AnotherFieldAloneIsAbsent) {
  ExpectAbsent(Send(Fields{{"CanDetectTimeout2", "500"}, {"CanDetectTime", "500"}}));
}

const Way QUERY{"Query", [](const Fields& fields) { return Get(UrlEncoded(fields)); }};
const Way POST{"Post", [](const Fields& fields) { return PostForm(UrlEncoded(fields)); }};
const Way MULTIPART{"Multipart", PostMultipart};

std::string NameOf(const testing::TestParamInfo<Way>& info) {
  return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Program, FormInput, testing::Values(QUERY, POST, MULTIPART), NameOf);

// ---- Long values.

class LongFormInput : public FormInput {};

TEST_P(LongFormInput, AMebibyteIsTaken) {
  const std::string value(MEBIBYTE, '7');
  ExpectTaken(Send(value), value);
}

INSTANTIATE_TEST_SUITE_P(Program, LongFormInput, testing::Values(POST, MULTIPART), NameOf);

TEST(QueryInput, TheLongestQueryIsTaken) {
  const std::string value(LONGEST_QUERY - sizeof FIELD, '7');
  ExpectTaken(Get(FIELD + ("=" + value)), value);
}

// ---- Each way's own.

TEST(QueryInput, TheNameAloneIsAbsent) {
  ExpectAbsent(Get("CanDetectTimeout"));
}

TEST(QueryInput, ASecondEqualsSignBelongsToTheValue) {
  ExpectTaken(Get("CanDetectTimeout=a=b"), "a=b");
}

TEST(QueryInput, ASemicolonSeparatesFields) {
  ExpectTaken(Get("Other=1;CanDetectTimeout=500;More=2"), "500");
}

TEST(QueryInput, APlusIsABlank) {
  ExpectTaken(Get("CanDetectTimeout=a+b"), "a b");
}

TEST(QueryInput, TheNameMayBePercentEncoded) {
  ExpectTaken(Get("%43anDetectTimeout=500"), "500");
}

TEST(QueryInput, BytesMayComeUnencoded) {
  ExpectTaken(Get("CanDetectTimeout=\xe4\xff<\"'"), "\xe4\xff<\"'");
}

TEST(QueryInput, EmptyFieldsAreIgnored) {
  ExpectTaken(Get("&&=1&CanDetectTimeout=500&"), "500");
}

TEST(QueryInput, AnEmptyQueryIsAbsent) {
  ExpectAbsent(Get(""));
}

TEST(PostInput, TheBodyComesBeforeTheQuery) {
  Command request = PostForm("CanDetectTimeout=body");
  request.environment["QUERY_STRING"] = "CanDetectTimeout=query";
  ExpectTaken(request, "body");
}

TEST(PostInput, TheQueryOfAPostIsRead) {
  Command request = PostForm("Other=1");
  request.environment["QUERY_STRING"] = "CanDetectTimeout=query";
  ExpectTaken(request, "query");
}

TEST(MultipartInput, AFileIsNoField) {
  ExpectAbsent(Post("multipart/form-data; boundary=frontier",
                    "--frontier\r\n"
                    "Content-Disposition: form-data; name=\"CanDetectTimeout\"; "
                    "filename=\"timeout.txt\"\r\n"
                    "Content-Type: text/plain\r\n"
                    "\r\n"
                    "500\r\n"
                    "--frontier--\r\n"));
}

TEST(MultipartInput, TheQueryStandsInForAFile) {
  Command request = PostMultipart({{"Other", "1"}});
  request.environment["QUERY_STRING"] = "CanDetectTimeout=query";
  ExpectTaken(request, "query");
}

}  // namespace
