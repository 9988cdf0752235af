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
    EXPECT_THAT(page, HasSubstr("<p class=\"warn\" >"));
    EXPECT_THAT(page, HasSubstr("not allowed to reboot"));
    EXPECT_THAT(page, HasSubstr("switch the device off and on again"));
    EXPECT_THAT(page, Not(HasSubstr("reboots now")));
    EXPECT_THAT(page, Not(HasSubstr(BUTTON)));
    EXPECT_THAT(page, Not(HasSubstr(SCRIPT)));
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
    EXPECT_THAT(Show(Get(query)), Not(HasSubstr("reboots now"))) << query;
    EXPECT_EQ(Orders(), "") << query;
  }
  const std::string page = Show(Get(""));
  EXPECT_THAT(page, HasSubstr("Reboot the device to activate new settings?"));
  EXPECT_THAT(page, HasSubstr("<form action=\"reboot.cgi\" method=\"post\" >"));
  EXPECT_THAT(page, HasSubstr(BUTTON));
}

TEST_F(Reboot, OrdersWhenItIsPosted) {
  Read();
  const std::string page = Show(PostForm(""));
  EXPECT_EQ(Orders(), "reboot\n");
  EXPECT_THAT(page, HasSubstr("<p>The device reboots now."));
  EXPECT_THAT(page, HasSubstr(LINK));
  EXPECT_THAT(page, HasSubstr(SCRIPT));
  EXPECT_THAT(page, Not(HasSubstr("class=\"warn\"")));
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
  const std::string page = Show(Get("before=first"));
  EXPECT_THAT(page, HasSubstr("<p class=\"warn\" >The device has not rebooted yet.</p>"));
  EXPECT_THAT(page, HasSubstr(LINK));
  EXPECT_THAT(page, HasSubstr(SCRIPT));
}

TEST_F(Reboot, ShowsThatTheDeviceIsBack) {
  WriteText(BOOT, "second\n");
  const std::string page = Show(Get("before=first"));
  EXPECT_THAT(page, HasSubstr("<p>The device is back: it has rebooted.</p>"));
  EXPECT_THAT(page, Not(HasSubstr(SCRIPT)));
  EXPECT_THAT(page, Not(HasSubstr("first")));
}

TEST_F(Reboot, ReportsWhenItCannotTellOneStartFromAnother) {
  constexpr char UNKNOWN[] = "Whether it has rebooted is not known.";
  EXPECT_THAT(Show(Get("before=unknown")), HasSubstr(UNKNOWN));
  std::filesystem::remove(BOOT);
  EXPECT_THAT(Show(Get("before=first")), HasSubstr(UNKNOWN));
}

TEST_F(Reboot, EchoesNothing) {
  WriteText(BOOT, "<b>\n");
  for (const std::string query : {"before=<i>", "before=%3Ci%3E", "before=<b>"}) {
    const std::string page = Show(Get(query));
    EXPECT_THAT(page, Not(HasSubstr("<i>"))) << query;
    EXPECT_THAT(page, Not(HasSubstr("<b>"))) << query;
  }
}

}  // namespace
