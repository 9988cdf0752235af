// The owner of the diagnostic interface of the stand-in device.
#pragma once

#include <string>

// The result of a function of the service; code 0 is success.
struct Status {
  int code;
  std::string message;
};

class Allocation {
 public:
  bool IsAllocated() const { return !owner_.empty(); }
  const std::string& Owner() const { return owner_; }
  const std::string& ClientAddress() const { return clientAddress_; }

  // Gives the device to `owner`. Refused while another owner has it.
  Status Allocate(std::string owner, std::string clientAddress);

  // Frees the device. Refused to everybody but its owner.
  Status Release(const std::string& owner);

 private:
  std::string owner_;  // empty: the device is free
  std::string clientAddress_;
};
