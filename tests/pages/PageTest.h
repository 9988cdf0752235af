// What tests of the sibling pages share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Process.h"

constexpr char INFORMATION[] = "/srv/vemo/htdocs/channeldeviceconfig.cgi";
constexpr char REBOOT[] = "/srv/vemo/htdocs/reboot.cgi";

// The page that the program answers the request with, whole and successful.
inline std::string ShowPage(const std::string& program, Command request) {
  request.words = {program};
  const Result result = Execute(request);
  EXPECT_EQ(result.exitStatus, 0) << result.error;
  EXPECT_THAT(result.output, testing::StartsWith("Content-Type: text/html\n\n"));
  EXPECT_THAT(result.output, testing::EndsWith("</div>\n</body>\n</html>\n"));
  return result.output;
}

// That the page contains each of these texts, and none of those.
inline void ExpectTexts(const std::string& page, const std::vector<std::string>& present,
                        const std::vector<std::string>& absent = {}) {
  for (const std::string& text : present) {
    EXPECT_THAT(page, testing::HasSubstr(text));
  }
  for (const std::string& text : absent) {
    EXPECT_THAT(page, testing::Not(testing::HasSubstr(text)));
  }
}
