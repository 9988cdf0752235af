// The page "Reboot", alone: what it asks, orders and shows, where something reads its orders and
// where nothing does.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "Files.h"
#include "PageTest.h"
#include "Request.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr char ORDERS[] = "/run/vemo-web-reboot";
constexpr char BOOT[] = "/run/vemo-web-boot";

constexpr char BUTTON[] = "<input type=\"submit\" value=\"Reboot\"";
constexpr char LINK[] = "<a id=\"back\" href=\"reboot.cgi?before=first\" >Is it back?</a>";
constexpr char SCRIPT[] = "<script>";

class Reboot : public testing::Test {
 protected:
  void SetUp() override {
    ResetDevice();
    std::filesystem::remove(ORDERS);
    WriteText(BOOT, "first\n");
  }

  void TearDown() override {
    close(reader_);
    std::filesystem::remove(ORDERS);
    std::filesystem::remove(BOOT);
  }

  // What the maintainer's permission brings.
  void Read() {
    ASSERT_EQ(mkfifo(ORDERS, 0600), 0);
    reader_ = open(ORDERS, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader_, 0);
  }

  // Those that came since the last call.
  std::string Orders() const {
    char text[100];
    const ssize_t length = read(reader_, text, sizeof text);
    return {text, length > 0 ? static_cast<std::size_t>(length) : 0};
  }

  static std::string Show(const Command& request) { return ShowPage(REBOOT, request); }

  // That the page refuses, and how else the device is restarted.
  static void ExpectRefusal(const std::string& page) {
    ExpectTexts(
        page,
        {"<p class=\"warn\" >", "not allowed to reboot", "switch the device off and on again"},
        {"reboots now", BUTTON, SCRIPT});
  }

  // That the page offers nothing, and that an order is refused and logged with this reason.
  static void ExpectNoReboot(const std::string& reason) {
    ExpectRefusal(Show(Get("")));
    EXPECT_THAT(ReadText(LOG_FILE), Not(HasSubstr("ERROR")));
    ExpectRefusal(Show(PostForm("")));
    EXPECT_THAT(ReadText(LOG_FILE), HasSubstr("ERROR"));
    EXPECT_THAT(ReadText(LOG_FILE), EndsWith("pages/Reboot             3     "
                                             "Can't order the reboot: " +
                                             reason + "\n"));
  }

  int reader_ = -1;
};

TEST_F(Reboot, AsksFirstAndOrdersNothingByThat) {
  Read();
  for (const std::string query : {"", "reboot", "before=", "before=first", "before=other"}) {
    ExpectTexts(Show(Get(query)), {}, {"reboots now"});
    EXPECT_EQ(Orders(), "") << query;
  }
  ExpectTexts(Show(Get("")), {"Reboot the device to activate new settings?",
                              "<form action=\"reboot.cgi\" method=\"post\" >", BUTTON});
}

TEST_F(Reboot, OrdersWhenItIsPosted) {
  Read();
  ExpectTexts(Show(PostForm("")), {"<p>The device reboots now.", LINK, SCRIPT}, {"class=\"warn\""});
  EXPECT_EQ(Orders(), "reboot\n");
  EXPECT_THAT(ReadText(LOG_FILE), HasSubstr("DEBUG     cgi"));
  EXPECT_THAT(ReadText(LOG_FILE), EndsWith("pages/Reboot             2     Reboot ordered\n"));
}

TEST_F(Reboot, RefusesWhereThereIsNoPipe) {
  ExpectNoReboot("No such file or directory");
  EXPECT_FALSE(std::filesystem::exists(ORDERS));
}

TEST_F(Reboot, RefusesWhereTheReaderHasGone) {
  ASSERT_EQ(mkfifo(ORDERS, 0600), 0);
  ExpectNoReboot("No such device or address");
}

TEST_F(Reboot, RefusesWhereItMayNotWrite) {
  Read();
  std::filesystem::permissions(ORDERS, std::filesystem::perms(0));
  ExpectNoReboot("Permission denied");
  EXPECT_EQ(Orders(), "");
}

// A file would take every order, and nothing would follow it.
TEST_F(Reboot, RefusesWhereAFileIsInThePipesPlace) {
  WriteText(ORDERS, "");
  ExpectNoReboot("No such device or address");
  EXPECT_EQ(ReadText(ORDERS), "");
}

TEST_F(Reboot, ReportsThatItOrderedNothingWhereThePipeIsFull) {
  Read();
  const int writer = open(ORDERS, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(writer, 0);
  const std::string page(4096, 'x');
  while (write(writer, page.data(), page.size()) > 0) {
  }
  close(writer);
  ExpectRefusal(Show(PostForm("")));
  EXPECT_THAT(ReadText(LOG_FILE),
              EndsWith("Can't order the reboot: Resource temporarily unavailable\n"));
}

TEST_F(Reboot, ShowsThatTheDeviceHasNotRebootedYet) {
  ExpectTexts(Show(Get("before=first")),
              {"<p class=\"warn\" >The device has not rebooted yet.</p>", LINK, SCRIPT});
}

TEST_F(Reboot, ShowsThatTheDeviceIsBack) {
  WriteText(BOOT, "second\n");
  ExpectTexts(Show(Get("before=first")), {"<p>The device is back: it has rebooted.</p>"},
              {SCRIPT, "first"});
}

TEST_F(Reboot, ReportsWhenItCannotDistinguishOneStartFromAnother) {
  constexpr char UNKNOWN[] = "Whether it has rebooted is not known.";
  ExpectTexts(Show(Get("before=unknown")), {UNKNOWN});
  std::filesystem::remove(BOOT);
  ExpectTexts(Show(Get("before=first")), {UNKNOWN});
}

TEST_F(Reboot, EchoesNothing) {
  WriteText(BOOT, "<b>\n");
  for (const std::string query : {"before=<i>", "before=%3Ci%3E", "before=<b>"}) {
    ExpectTexts(Show(Get(query)), {}, {"<i>", "<b>"});
  }
}

}  // namespace
