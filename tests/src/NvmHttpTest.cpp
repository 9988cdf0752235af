// The client's requests as HTTP, read by an HTTP server that is not ours.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Files.h"
#include "NvmClient.h"
#include "Process.h"
#include "Tcp.h"

namespace {

constexpr char REQUEST_FILE[] = "/tmp/http-request.txt";

class NvmHttp : public testing::TestWithParam<std::string> {};

TEST_P(NvmHttp, TheRequestIsUnderstoodByAForeignServer) {
  const std::string& function = GetParam();
  std::filesystem::remove(REQUEST_FILE);
  EmptyLog();
  Command command;
  command.words = {"/usr/bin/python3", "/source/tests/support/HttpServer.py", "127.0.0.2", "5302",
                   REQUEST_FILE};
  BackgroundProcess server(command);
  ASSERT_TRUE(Eventually([] { return IsListening("127.0.0.2", NVM_PORT); }));

  NvmClient client;
  std::string reply;
  EXPECT_EQ(client.SendToNvm("127.0.0.2", function, reply), 0);
  EXPECT_EQ(reply, "<?xml version='1.0'?><answer/>");

  const std::string packet = function == "nvmAllocateDevice"  ? client.GetAllocatePacket()
                             : function == "nvmReleaseDevice" ? client.GetReleasePacket()
                                                              : client.GetEmptyPacket();
  EXPECT_EQ(ReadText(REQUEST_FILE),
            "method: GET\n"
            "path: /nVm\n"
            "query: FunctionName=" +
                function +
                "\n"
                "version: HTTP/1.1\n"
                "header Host: 127.0.0.2\n"
                "header Accept: */*\n"
                "header User-Agent: USER_AGENT\n"
                "header Content-type: text/xml\n"
                "header Content-length: " +
                std::to_string(packet.size()) +
                "\n"
                "body: " +
                packet +
                "\n"
                "left over: 0\n");
}

INSTANTIATE_TEST_SUITE_P(, NvmHttp,
                         testing::Values("nvmGetDeviceStatus", "nvmAllocateDevice",
                                         "nvmReleaseDevice"),
                         [](const auto& function) { return function.param; });

}  // namespace
