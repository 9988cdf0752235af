// Who holds the diagnostic interface of the stand-in device.
#pragma once

#include <string>

// What a function of the service came to; code 0 is success.
struct Status {
  int code;
  std::string message;
};

class Allocation {
 public:
  bool IsAllocated() const { return !owner_.empty(); }
  const std::string& Owner() const { return owner_; }
  const std::string& ClientAddress() const { return clientAddress_; }

  // Gives the device to `owner`; refused while another holds it.
  Status Allocate(std::string owner, std::string clientAddress);

  // Frees the device; refused to anybody but its owner.
  Status Release(const std::string& owner);

 private:
  std::string owner_;  // empty: the device is free
  std::string clientAddress_;
};
