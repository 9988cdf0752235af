// What the page takes for the value of its field, and what becomes of it: echoed and stored, byte
// for byte. Requests that break the rules of CGI or of their encoding. Java has no part in it.

#include <map>
#include <optional>

#include "ProgramTest.h"
#include "PropertiesIni.h"

namespace {

constexpr char FIELD[] = "CanDetectTimeout";
constexpr char MULTIPART_TYPE[] = "multipart/form-data; boundary=frontier";

// A page without a value warns.
using Value = std::optional<std::string>;
constexpr std::nullopt_t ABSENT = std::nullopt;

std::string StoredValue() {
  PropertiesIni settings;
  settings.Load(SETTINGS_FILE);
  return settings.GetProperty("SETTINGS", "VEMODCanDetectTimeout");
}

// Makes the request on a device without settings. `inFile` is the value as it stands in the
// settings file.
void ExpectValue(const Command& request, const Value& value, const std::string& inFile) {
  ResetDevice();
  const Result result = Execute(WithFakeVm(request));
  // Not EXPECT_EQ: a value may be long.
  EXPECT_TRUE(result.output == (value ? SuccessPage(*value) : WarningPage()))
      << result.output.substr(0, 2000);
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.exitStatus, value ? 0 : 1);
  EXPECT_EQ(std::filesystem::exists(SETTINGS_FILE), value.has_value());
  if (value) {
    EXPECT_TRUE(StoredValue() == value) << StoredValue().substr(0, 1000);
    EXPECT_TRUE(ReadText(SETTINGS_FILE) == "[SETTINGS]\nVEMODCanDetectTimeout=" + inFile + "\n")
        << ReadText(SETTINGS_FILE).substr(0, 1000);
  }
}

// ---- Fields, in every way in which a form comes.

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

const Way QUERY{"Query", [](const Fields& fields) { return Get(UrlEncoded(fields)); }};
const Way POST{"Post", [](const Fields& fields) { return PostForm(UrlEncoded(fields)); }};
const Way MULTIPART{"Multipart", PostMultipart};

struct Input {
  std::string name;
  Fields fields;
  Value value;
  std::string inFile = value.value_or("");
};

Input Single(const std::string& name, const std::string& value) {
  return {name, {{FIELD, value}}, value};
}

Input Quoted(const std::string& name, const std::string& value, const std::string& inFile) {
  return {name, {{FIELD, value}}, value, "\"" + inFile + "\""};
}

Input EveryByteButNul() {
  const std::map<char, std::string> escaped = {
      {'\n', "\\n"}, {'\r', "\\r"}, {'"', "\\\""}, {'\\', "\\\\"}};
  std::string bytes = "x";
  std::string inFile = "x";
  for (int byte = 1; byte < 256; ++byte) {
    const char character = static_cast<char>(byte);
    bytes += character;
    inFile += escaped.count(character) > 0 ? escaped.at(character) : std::string(1, character);
  }
  return Quoted("EveryByteButNulIsTaken", bytes, inFile);
}

const std::vector<Input> INPUTS = {
    Single("ANumberIsTaken", "500"),
    Single("AnEmptyValueIsTaken", ""),
    Single("ANegativeNumberIsTaken", "-1"),
    Single("ATextIsTaken", "a minute or two"),
    Single("ANumberBeyondEveryRangeIsTaken", std::string(400, '9')),
    Single("MarkupIsTakenUnescaped", "<b>&amp;\"'</b>"),
    Single("CharactersOfUrlsAndOfSettingsFilesAreTaken", "a+b&c=d;e%41#f[g]\\n"),
    Quoted("BlanksAroundTheValueAreKept", " 500\t", " 500\t"),
    Quoted("NulIsTaken", std::string("a\0b", 3), "a\\0b"),
    Quoted("ALineEndIsEchoedRawAndAddsNoSetting", "500\r\nVEMODOther=1\n[OTHER]",
           "500\\r\\nVEMODOther=1\\n[OTHER]"),
    EveryByteButNul(),
    {"OfAFieldGivenTwiceTheFirstIsTaken", {{FIELD, "first"}, {FIELD, "second"}}, "first"},
    {"AnEmptyFirstFieldIsTakenAllTheSame", {{FIELD, ""}, {FIELD, "second"}}, ""},
    {"TheNameMayBeInAnyLetterCase", {{"cANdETECTtIMEOUT", "500"}}, "500"},
    {"TheFirstIsTheFirstInAnyLetterCase",
     {{"candetecttimeout", "first"}, {FIELD, "second"}},
     "first"},
    {"OtherFieldsAreIgnored",
     {{"Other", "1"}, {FIELD, "500"}, {"VEMODCanDetectTimeout", "2"}},
     "500"},
    {"NoFieldIsAbsent", {}, ABSENT},
    {"AnotherFieldAloneIsAbsent",
     {{"CanDetectTimeout2", "500"}, {"CanDetectTime", "500"}},
     ABSENT}};

class FormInput : public testing::TestWithParam<std::tuple<Input, Way>> {};

TEST_P(FormInput, GivesTheValue) {
  const auto& [input, way] = GetParam();
  ExpectValue(way.send(input.fields), input.value, input.inFile);
}

INSTANTIATE_TEST_SUITE_P(Program, FormInput,
                         testing::Combine(testing::ValuesIn(INPUTS),
                                          testing::Values(QUERY, POST, MULTIPART)),
                         ParamName());

// ---- Single requests.

constexpr std::size_t MEBIBYTE = 1 << 20;
// The kernel hands no longer text than this to a program, name, end and all.
constexpr std::size_t LONGEST_QUERY = 131072 - sizeof "QUERY_STRING=";

const std::string LONG_IN_QUERY(LONGEST_QUERY - sizeof FIELD, '7');
const std::string LONG_IN_BODY(MEBIBYTE, '7');

Command WithQuery(const Command& request) {
  return WithVariable(request, "QUERY_STRING", "CanDetectTimeout=query");
}

Command GetWithBody() {
  return WithVariable(PostForm("CanDetectTimeout=500"), "REQUEST_METHOD", "GET");
}

Command LongerThanAnnounced() {
  Command request = PostForm("CanDetectTimeout=500");
  request.input += "0000";
  return request;
}

struct Request {
  std::string name;
  Command command;
  Value value;
};

const std::vector<Request> REQUESTS = {
    {"TheLongestQueryIsTaken", Get(FIELD + ("=" + LONG_IN_QUERY)), LONG_IN_QUERY},
    {"APostedMebibyteIsTaken", PostForm(FIELD + ("=" + LONG_IN_BODY)), LONG_IN_BODY},
    {"AMebibyteInAPartIsTaken", PostMultipart({{FIELD, LONG_IN_BODY}}), LONG_IN_BODY},
    {"TheNameAloneIsAbsent", Get("CanDetectTimeout"), ABSENT},
    {"ASecondEqualsSignBelongsToTheValue", Get("CanDetectTimeout=a=b"), "a=b"},
    {"ASemicolonSeparatesFields", Get("Other=1;CanDetectTimeout=500;More=2"), "500"},
    {"APlusIsABlank", Get("CanDetectTimeout=a+b"), "a b"},
    {"TheNameMayBePercentEncoded", Get("%43anDetectTimeout=500"), "500"},
    {"BytesMayComeUnencoded", Get("CanDetectTimeout=\xe4\xff<\"'"), "\xe4\xff<\"'"},
    {"EmptyFieldsAreIgnored", Get("&&=1&CanDetectTimeout=500&"), "500"},
    {"AnEmptyQueryIsAbsent", Get(""), ABSENT},
    {"AMissingQueryIsAbsent", WithoutVariable(Get(""), "QUERY_STRING"), ABSENT},
    {"NoRequestAtAllIsAbsent", {{PROGRAM}}, ABSENT},
    {"ABodyOfAGetIsNotRead", GetWithBody(), ABSENT},
    {"TheBodyComesBeforeTheQuery", WithQuery(PostForm("CanDetectTimeout=body")), "body"},
    {"TheQueryOfAPostIsRead", WithQuery(PostForm("Other=1")), "query"},
    {"TheQueryOfAMultipartPostIsRead", WithQuery(PostMultipart({{"Other", "1"}})), "query"},
    {"TheBodyEndsAtItsAnnouncedLength", LongerThanAnnounced(), "500"},
    {"ABodyThatIsNoFormIsNotRead", Post("text/plain", "CanDetectTimeout=500"), ABSENT},
    {"ABodyWithoutATypeIsReadAsAForm",
     WithoutVariable(PostForm("CanDetectTimeout=500"), "CONTENT_TYPE"), "500"},
    {"AFileIsNoField",
     Post(MULTIPART_TYPE,
          "--frontier\r\n"
          "Content-Disposition: form-data; name=\"CanDetectTimeout\"; filename=\"timeout.txt\"\r\n"
          "Content-Type: text/plain\r\n"
          "\r\n"
          "500\r\n"
          "--frontier--\r\n"),
     ABSENT}};

class FormRequest : public testing::TestWithParam<Request> {};

TEST_P(FormRequest, GivesTheValue) {
  ExpectValue(GetParam().command, GetParam().value, GetParam().value.value_or(""));
}

INSTANTIATE_TEST_SUITE_P(Program, FormRequest, testing::ValuesIn(REQUESTS), ParamName());

// ---- Requests that the CGI library throws at.

struct BadRequest {
  std::string name;
  Command command;
  const char* reason;
};

Command Announcing(const std::string& length) {
  return WithVariable(PostForm("CanDetectTimeout=500"), "CONTENT_LENGTH", length);
}

const BadRequest SHORT_BODY{"ShortBody", Announcing("1000"), "runtime_error"};
const BadRequest NEGATIVE_LENGTH{"NegativeLength", Announcing("-1"), "length_error"};
const BadRequest PART_WITHOUT_EMPTY_LINE{
    "PartWithoutEmptyLine",
    Post(MULTIPART_TYPE,
         "--frontier\r\n"
         "Content-Disposition: form-data; name=\"CanDetectTimeout\"\r\n"
         "500\r\n"
         "--frontier--\r\n"),
    "runtime_error"};

class ThrowingRequest : public OldSettings,
                        public testing::WithParamInterface<std::tuple<BadRequest, Vm>> {};

TEST_P(ThrowingRequest, AbortsBelowTheContentOpening) {
  const auto& [bad, vm] = GetParam();
  const Result result = Execute(With(vm, bad.command));
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_EQ(result.output, PageUpTo(CONTENT_OPENING));
  EXPECT_THAT(result.error, testing::HasSubstr(bad.reason));
  ExpectSettings(OLD_SETTINGS);
  EXPECT_THAT(LoggedLines(), testing::ElementsAreArray(SuccessStatements()));
}

INSTANTIATE_TEST_SUITE_P(Program, ThrowingRequest,
                         testing::Combine(testing::Values(SHORT_BODY, NEGATIVE_LENGTH,
                                                          PART_WITHOUT_EMPTY_LINE),
                                          testing::Values(Vm::kReal, Vm::kFake)),
                         ParamName());

}  // namespace
