// The client of the device's local nVm service, which tracks the owner of the diagnostic interface.
//
// Each exchange is one HTTP/1.1 request with a WDDX 1.0 packet as its body, over a connection of
// its own. What that means for a caller:
// - SendToNvm blocks without a timeout, possibly for ever: it relies on the service to send as many
//   bytes as it announces. It calls `send` once and does not continue a short one. A service that
//   closes the connection during the send raises SIGPIPE.
// - Some failures leave their connection open until the process ends; SendToNvm names them.
// - While an object lives, and while ToggleDeviceAllocation runs, nothing else in the process may
//   hold libxml2 documents: both clean up the state that libxml2 keeps for the whole process. The
//   toggle also replaces the process's entity loader while it reads its status file, so that no
//   reply can make it open another file or the network.
// - Single-threaded.
//
// Everything is traced to the CGI log: progress as DEBUG, failures as ERROR.
#pragma once

#include <libxml/tree.h>

#include <cstdint>
#include <string>

constexpr std::uint16_t NVM_SERVICE_PORT = 5302;
constexpr char NVM_SERVICE_ADDRESS[] = "127.0.0.1";

// The web interface allocates the device under this name.
constexpr char NVM_DEVICE_OWNER[] = "VEMO_WEB";

class NvmManipulator {
 public:
  NvmManipulator();

  // Frees the document of the last reply and cleans up libxml2.
  virtual ~NvmManipulator();

  NvmManipulator(const NvmManipulator&) = delete;
  NvmManipulator& operator=(const NvmManipulator&) = delete;

  // The WDDX packets of the requests: for the status, to allocate and to release the device. The
  // owner is always NVM_DEVICE_OWNER.
  std::string GetEmptyPacket();
  std::string GetAllocatePacket();
  std::string GetReleasePacket();

  // The text of the request for `functionName`, to the host `address`. Empty, and logged as ERROR,
  // when the function is not one of the three below.
  std::string BuildRequest();

  // Asks the nVm service at `serviceAddress` (dotted quad, not checked) for one of the functions
  // "nvmGetDeviceStatus", "nvmAllocateDevice", "nvmReleaseDevice" and waits for the reply.
  //
  // Returns 0 when there is a reply: its body, from the XML declaration on, is in `replyText` and
  // kept for the readers below. The HTTP status is ignored.
  // Returns -1 on any failure, with `replyText` unchanged. No socket, no connection or a failed
  // send is logged as ERROR and closes the connection. An unknown function (logged as ERROR), or a
  // first receive without a "content-length" in lower case, leaves it open. With an empty argument
  // nothing is sent, and the last reply is kept.
  int SendToNvm(const std::string& serviceAddress, const std::string& function,
                std::string& replyText);

  // The first child of `node` with that name; null when there is none, or no node.
  xmlNodePtr FindChildNode(xmlNodePtr node, const std::string& name);

  // The top-level variable of that name in the last reply; null when there is none, or no reply
  // that can be parsed. This object owns the node. It is valid until the next call of any operation
  // from here on, since each of them parses a reply that is not empty again.
  xmlNodePtr GetVarNode(const std::string& name);

  // The variable "Status", as GetVarNode.
  xmlNodePtr GetStatusNodeTree();

  // Code and message of the variable "Status". An argument that the reply lacks stays unchanged.
  void GetStatusMessages(std::string& code, std::string& msg);

  // The text of the top-level variable of that name; empty when there is none.
  std::string GetSingleVar(const std::string& name);

 protected:
  xmlDocPtr doc;             // the last reply that was parsed; null when there is none; owned
  std::string address;       // of the last exchange
  std::string functionName;  // of the last exchange
  std::string reply;         // body of the last reply; empty after an exchange that failed
};

// Asks for the device's status, allocates the device when it is free and releases it otherwise, and
// asks for the status once more. Traces its steps on standard output, and leaves the first status
// reply in the file "/tmp/cgirep.txt", emptied before. Returns 0 when a value of "IsAllocated" is
// found in that reply, whatever the later exchanges returned. Otherwise returns -1 and reports it
// on standard output.
int ToggleDeviceAllocation();
