// The client of the device's local nVm service, which keeps who holds the diagnostic interface.
//
// Each exchange is one HTTP/1.1 request with a WDDX 1.0 packet as its body, over a connection of
// its own. What that means for a caller:
// - SendToNvm blocks, without a time-out, and may block for ever: it relies on the service to send
//   as many bytes as it announces. It sends with one `send` and does not retry a short one. A
//   service that hangs up while it is sent to raises SIGPIPE.
// - Some failures leave their connection open until the process ends; they are named at SendToNvm.
// - While an object lives, and while ToggleDeviceAllocation runs, nothing else in the process may
//   hold libxml2 documents: both clean up the state that libxml2 keeps for the whole process. The
//   toggle also takes the place of the process's entity loader while it reads its status file, so
//   that nothing in a reply makes it reach for another file or for the network.
// - Single-threaded.
//
// Everything is traced to the CGI log: progress as DEBUG, failures as ERROR.
#pragma once

#include <libxml/tree.h>

#include <cstdint>
#include <string>

constexpr std::uint16_t NVM_SERVICE_PORT = 5302;
constexpr char NVM_SERVICE_ADDRESS[] = "127.0.0.1";

// Under this name the web interface allocates the device.
constexpr char NVM_DEVICE_OWNER[] = "VEMO_WEB";

class NvmManipulator {
 public:
  NvmManipulator();

  // Frees the document of the last reply and cleans up libxml2.
  virtual ~NvmManipulator();

  NvmManipulator(const NvmManipulator&) = delete;
  NvmManipulator& operator=(const NvmManipulator&) = delete;

  // The WDDX packets that the requests carry: for the status, to allocate and to release the
  // device. The owner is always NVM_DEVICE_OWNER.
  std::string GetEmptyPacket();
  std::string GetAllocatePacket();
  std::string GetReleasePacket();

  // The text of the request for `functionName`, to the host `address`. Empty when the function is
  // not one of the three below; that is logged as ERROR.
  std::string BuildRequest();

  // Asks the nVm service at `serviceAddress` (dotted quad, not checked) for one of the functions
  // "nvmGetDeviceStatus", "nvmAllocateDevice", "nvmReleaseDevice" and waits for the reply.
  //
  // Returns 0 when there is a reply: its body, from the XML declaration on, is in `replyText` and
  // kept for the readers below. The HTTP status is not looked at.
  // Returns -1 on any failure, `replyText` untouched. No socket, no connection, a failed send:
  // ERROR, closed. An unknown function (ERROR) or a first chunk without a "content-length" in lower
  // case: the connection stays open. An empty argument: nothing is done.
  int SendToNvm(const std::string& serviceAddress, const std::string& function,
                std::string& replyText);

  // The first child of `node` with that name; null when there is none, or no node.
  xmlNodePtr FindChildNode(xmlNodePtr node, const std::string& name);

  // The top-level variable of that name in the last reply; null when there is none, or no reply
  // that can be read. The node belongs to this object, until the next call of any operation from
  // here on: each of them reads the reply anew.
  xmlNodePtr GetVarNode(const std::string& name);

  // The variable "Status", as GetVarNode.
  xmlNodePtr GetStatusNodeTree();

  // Code and message of the variable "Status". What the reply does not hold stays unchanged.
  void GetStatusMessages(std::string& code, std::string& msg);

  // The text of the top-level variable of that name; empty when there is none.
  std::string GetSingleVar(const std::string& name);

 protected:
  xmlDocPtr doc;             // the last reply that was read; null when there is none; owned
  std::string address;       // of the last exchange
  std::string functionName;  // of the last exchange
  std::string reply;         // body of the last reply; empty after a failed exchange
};

// Asks for the device's status, allocates it when it is free and releases it otherwise, and asks
// for the status once more. Traces what it does on standard output, and leaves the first status
// reply in the file "/tmp/cgirep.txt", emptied before. Returns 0 when that reply tells whether the
// device is allocated, whatever the exchanges then returned, and -1, said on standard output, when
// it does not.
int ToggleDeviceAllocation();
