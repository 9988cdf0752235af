// Hostile requests to the unmodified program: known ones, and as many made by chance as one likes.
// What each of them did is judged by Trial.h.
//
// By hand, others than `./test` sends, with a seed of one's own; each round goes on behind the one
// before it:
//
//   build/tests/hostile_tests --gtest_filter='*AThousand*' --gtest_repeat=100 --gtest_random_seed=7

#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "Generator.h"
#include "Request.h"
#include "Trial.h"

namespace {

using std::string_literals::operator""s;

// ---- Known requests, each of which once hurt or might.

struct KnownRequest {
  const char* name;
  Outcome outcome;
  Command request;

  friend std::ostream& operator<<(std::ostream& out, const KnownRequest& row) {
    return out << row.name;
  }
};

constexpr char FORM[] = "CanDetectTimeout=500";

Command Announcing(const std::string& length, const std::string& body = FORM) {
  Command request = PostForm(body);
  request.environment["CONTENT_LENGTH"] = length;
  return request;
}

// `value` as it is in the query string.
Command GetValue(const std::string& value) {
  return Get("CanDetectTimeout=" + value);
}

Command With(const std::string& name, const std::string& value, Command request = Get(FORM)) {
  request.environment[name] = value;
  return request;
}

Command Without(const std::string& name, Command request = PostForm(FORM)) {
  request.environment.erase(name);
  return request;
}

// A body of one part: header lines, an empty one and the value, say.
Command PostPart(const std::string& part, const std::string& boundary = "frontier") {
  return Post("multipart/form-data; boundary=" + boundary,
              "--" + boundary + "\r\n" + part + "\r\n--" + boundary + "--\r\n");
}

const std::string DISPOSITION = "Content-Disposition: form-data; name=\"CanDetectTimeout\"";

const std::vector<KnownRequest>& KnownRequests() {
  static const std::vector<KnownRequest> all = {
      {"NoEnvironment", Outcome::kAbsent, {{PROGRAM}}},
      {"NoMethod", Outcome::kStored, Without("REQUEST_METHOD", Get(FORM))},
      {"MethodInLowerCase", Outcome::kStored, With("REQUEST_METHOD", "post", PostForm(FORM))},
      {"NoType", Outcome::kStored, Without("CONTENT_TYPE")},
      {"BrokenCookies", Outcome::kStored, With("HTTP_COOKIE", ";;a;b==;CanDetectTimeout=1; ;\xff")},
      {"GarbageAsTimeZone", Outcome::kStored, With("TZ", ":/etc/passwd%s\xff")},
      {"FormatDirectivesInJavaClasspath", Outcome::kStored,
       With("JAVA_CLASSPATH", "%s%n%x%1000000d")},
      {"LogLinesInJavaOptions", Outcome::kStored,
       With("JAVA_OPTIONS",
            "-Da\n2026-01-01 00:00:00.000000  ERROR     cgi            1     "
            "src/SetObdConf           50    forged")},
      {"NoJavaAndABodyUnread", Outcome::kFrameOnly, With("FAKE_VM_RESULT", "-1", PostForm(FORM))},

      {"LengthMissing", Outcome::kAbsent, Without("CONTENT_LENGTH")},
      {"LengthZero", Outcome::kAbsent, Announcing("0")},
      {"LengthOfWords", Outcome::kAbsent, Announcing("a lot")},
      {"LengthMinusOne", Outcome::kAborted, Announcing("-1")},
      {"LengthOf10Gigabytes", Outcome::kAborted, Announcing("10000000000")},
      {"LengthBeyond64Bits", Outcome::kAborted, Announcing("99999999999999999999999999999999")},
      {"BodyLongerThanAnnounced", Outcome::kStored, Announcing("20", "CanDetectTimeout=5000000")},
      {"BodyMissing", Outcome::kAborted, Announcing("20", "")},
      {"BodyOneByteShort", Outcome::kAborted, Announcing("21")},
      {"BodyMuchShorter", Outcome::kAborted, Announcing("1000")},

      {"FieldTwice", Outcome::kStored, Get("candetecttimeout=first&CanDetectTimeout=second")},
      {"NulInTheName", Outcome::kAbsent, Get("CanDetectTimeout%00=500")},
      {"EscapeCutShort", Outcome::kStored, GetValue("5%4")},
      {"EscapeOfNoDigits", Outcome::kStored, GetValue("%zz%-1")},
      {"ValueLikeASection", Outcome::kStored, GetValue("[CAN]")},
      {"BackslashesBehindAQuote", Outcome::kStored, GetValue(R"("\\n\)")},
      {"ValueOfBlanks", Outcome::kStored, GetValue("%20%09+")},
      {"ValueOfMarkup", Outcome::kStored, GetValue("<script>alert(1)</script>")},
      {"ValueInQuotes", Outcome::kStored, GetValue("\"500\"")},
      {"LineEndsAndNulInTheValue", Outcome::kStored,
       GetValue("1%0D%0AVEMODOther=1%0A[OTHER]%0A%00")},

      {"MultipartWithoutABoundary", Outcome::kAbsent, Post("multipart/form-data", FORM)},
      {"EmptyBoundary", Outcome::kStored, PostPart(DISPOSITION + "\r\n\r\n500", "")},
      {"BoundaryInTheValue", Outcome::kStored,
       PostPart(DISPOSITION + "\r\n\r\n500 --frontier 600")},
      {"PartWithAFileName", Outcome::kAbsent,
       PostPart(DISPOSITION + "; filename=\"x\"\r\n\r\n500")},
      {"NameWithoutQuotes", Outcome::kAbsent,
       PostPart("Content-Disposition: form-data; name=CanDetectTimeout\r\n\r\n500")},
      {"PartWithoutADisposition", Outcome::kAborted, PostPart("\r\n500")},
      {"PartWithoutAnEmptyLine", Outcome::kAborted, PostPart(DISPOSITION + "\r\n500")},
      {"PartWithoutAnEnd", Outcome::kAbsent,
       Post("multipart/form-data; boundary=frontier",
            "--frontier\r\n" + DISPOSITION + "\r\n\r\n500")},
      {"BareNewlines", Outcome::kAbsent,
       Post("multipart/form-data; boundary=frontier",
            "--frontier\n" + DISPOSITION + "\n\n500\n--frontier--\n")}};
  return all;
}

class HostileRequest : public testing::TestWithParam<KnownRequest> {};

TEST_P(HostileRequest, EndsAsItMustWithEachKindOfSettingsFile) {
  for (const Settings& settings : AllSettings()) {
    std::string complaint;
    EXPECT_EQ(NameOf(Try(GetParam().request, Vm::kFake, settings, complaint)),
              NameOf(GetParam().outcome));
    EXPECT_EQ(complaint, "");
  }
}

INSTANTIATE_TEST_SUITE_P(, HostileRequest, testing::ValuesIn(KnownRequests()),
                         [](const auto& request) { return request.param.name; });

// ---- Requests made by chance, some of them by changing known ones.

void TryMany(Vm vm, std::uint32_t count, std::uint32_t seed) {
  // After so many it is clear that something is wrong.
  constexpr int MOST_FAILURES = 5;
  static std::uint32_t number = 0;  // goes on when the test is repeated
  if (testing::GTEST_FLAG(random_seed) != 0) {
    seed = static_cast<std::uint32_t>(testing::GTEST_FLAG(random_seed));
  }
  std::vector<Command> known;
  for (const KnownRequest& request : KnownRequests()) {
    known.push_back(request.request);
  }
  std::map<std::string, std::uint32_t> counts;
  int failures = 0;
  for (const std::uint32_t end = number + count; number < end && failures < MOST_FAILURES;
       ++number) {
    const Command request =
        vm == Vm::kReal ? GenerateForRealVm(seed, number, known) : Generate(seed, number, known);
    std::string complaint;
    ++counts[NameOf(Try(request, vm, AllSettings()[number % AllSettings().size()], complaint))];
    if (!complaint.empty()) {
      ++failures;
      ADD_FAILURE() << "seed " << seed << ", number " << number << ": " << complaint
                    << "\nenvironment: " << testing::PrintToString(request.environment)
                    << "\ninput: " << testing::PrintToString(request.input);
    }
  }
  for (const auto& [outcome, times] : counts) {
    std::cout << times << " " << outcome << "\n";
  }
  // Else they would prove little.
  EXPECT_GT(counts["stored"], count / 10);
  EXPECT_GT(counts["absent"], count / 10);
}

TEST(HostileRequests, AThousandEndAsTheyMay) {
  TryMany(Vm::kFake, 1000, 1);
}

TEST(HostileRequestsLong, TenThousandEndAsTheyMay) {
  TryMany(Vm::kFake, 10000, 2);
}

TEST(HostileRequestsLong, FiveHundredEndAsTheyMayWithTheRealVm) {
  TryMany(Vm::kReal, 500, 3);
}

}  // namespace
