// Requests that break the rules of CGI or of their encoding.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ExpectedPage.h"
#include "Files.h"
#include "LogLine.h"
#include "Process.h"
#include "ProgramTest.h"
#include "Request.h"

namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;

// ---- Those that are answered all the same.

TEST(QueryInput, AMissingQueryIsAbsent) {
  Command request = Get("");
  request.environment.erase("QUERY_STRING");
  ExpectAbsent(request);
}

TEST(QueryInput, NoRequestAtAllIsAbsent) {
  ExpectAbsent({{PROGRAM}});
}

TEST(QueryInput, ABodyOfAGetIsNotRead) {
  Command request = Get("");
  request.input = "CanDetectTimeout=500";
  request.environment["CONTENT_TYPE"] = "application/x-www-form-urlencoded";
  request.environment["CONTENT_LENGTH"] = std::to_string(request.input.size());
  ExpectAbsent(request);
}

TEST(PostInput, TheBodyEndsAtItsAnnouncedLength) {
  Command request = PostForm("CanDetectTimeout=500");
  request.input += "0000";
  ExpectTaken(request, "500");
}

TEST(PostInput, ABodyThatIsNoFormIsNotRead) {
  ExpectAbsent(Post("text/plain", "CanDetectTimeout=500"));
}

TEST(PostInput, ABodyWithoutATypeIsReadAsAForm) {
  Command request = PostForm("CanDetectTimeout=500");
  request.environment.erase("CONTENT_TYPE");
  ExpectTaken(request, "500");
}

// ---- Requests that the CGI library throws at.

struct BadRequest {
  const char* name;
  Command (*make)();
  const char* reason;
};

class ThrowingRequest : public OldSettings,
                        public testing::WithParamInterface<std::tuple<BadRequest, Vm>> {};

TEST_P(ThrowingRequest, AbortsBelowTheContentOpening) {
  const auto& [bad, vm] = GetParam();
  const Result result = Execute(With(vm, bad.make()));
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_EQ(result.output, PageUpTo(CONTENT_OPENING));
  EXPECT_THAT(result.error, HasSubstr(bad.reason));
  ExpectSettings(OLD_SETTINGS);
  EXPECT_THAT(LoggedLines(), ElementsAreArray(SuccessStatements()));
}

Command AnnouncingLength(const std::string& length) {
  Command request = PostForm("CanDetectTimeout=500");
  request.environment["CONTENT_LENGTH"] = length;
  return request;
}

const BadRequest SHORT_BODY{"ShortBody", [] { return AnnouncingLength("1000"); }, "runtime_error"};
const BadRequest NEGATIVE_LENGTH{"NegativeLength", [] { return AnnouncingLength("-1"); },
                                 "length_error"};
const BadRequest PART_WITHOUT_EMPTY_LINE{
    "PartWithoutEmptyLine",
    [] {
      return Post("multipart/form-data; boundary=frontier",
                  "--frontier\r\n"
                  "Content-Disposition: form-data; name=\"CanDetectTimeout\"\r\n"
                  "500\r\n"
                  "--frontier--\r\n");
    },
    "runtime_error"};

std::string NameOfBad(const testing::TestParamInfo<std::tuple<BadRequest, Vm>>& info) {
  const auto& [bad, vm] = info.param;
  return bad.name + NameOf(vm);
}

INSTANTIATE_TEST_SUITE_P(Program, ThrowingRequest,
                         testing::Combine(testing::Values(SHORT_BODY, NEGATIVE_LENGTH,
                                                          PART_WITHOUT_EMPTY_LINE),
                                          testing::Values(Vm::kReal, Vm::kFake)),
                         NameOfBad);

}  // namespace
