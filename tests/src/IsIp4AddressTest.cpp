#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "JavaVmWrapper.h"

namespace {

class IsIp4AddressTest : public testing::TestWithParam<const char*> {};

// The C library decides, whatever it takes.
TEST_P(IsIp4AddressTest, SaysWhatTheCLibrarySays) {
  in_addr address;
  EXPECT_EQ(IsIp4Address(GetParam()), inet_aton(GetParam(), &address) == 1);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, IsIp4AddressTest,
    testing::Values("127.0.0.1", "192.168.0.1", "0.0.0.0", "255.255.255.255", "1.2.3.4",
                    "10.0.0.255", "1.2.3", "1.2", "1", "0", "4294967295", "4294967296", "16777216",
                    "1.16777215", "1.16777216", "1.2.65535", "1.2.65536", "0x7f.0.0.1",
                    "0x7f000001", "0X7F.1", "0177.0.0.1", "08.1.1.1", "0xg", "256.1.1.1",
                    "1.256.1.1", "1.1.1.256", "1.2.3.4.5", "1.2.3.", ".1.2.3", "1..2.3", "...", "",
                    " ", " 1.2.3.4", "1.2.3.4 ", "1.2.3.4 x", "1.2.3.4\tx", "1.2.3.4\n", "1.2.3.4x",
                    "1.2.3.x", "a.b.c.d", "localhost", "-1.2.3.4", "+1.2.3.4", "1,2,3,4", "::1",
                    "1.2.3.4/24", "1.2.3.4:80", "0000001.2.3.4", "0x", "1e3"));

}  // namespace
