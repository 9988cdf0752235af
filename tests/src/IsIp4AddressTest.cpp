#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "JavaVmWrapper.h"

// The C library decides, whatever it takes.
TEST(IsIp4AddressTest, SaysWhatTheCLibrarySays) {
  in_addr address;
  for (const char* const text :
       {"1",          "127.0.0.1", "255.255.255.255", "4294967295", "4294967296",
        "1.16777216", "0X7f.1",    "08.1.1.1",        "0x",         "256.1.1.1",
        "1.2.3.4.5",  "1.2.3.",    "1..2.3",          "",           " 1.2.3.4",
        "1.2.3.4 x",  "1.2.3.4\n", "1.2.3.4x",        "-1.2.3.4",   "::1"}) {
    EXPECT_EQ(IsIp4Address(text), inet_aton(text, &address) == 1) << text;
  }
}
