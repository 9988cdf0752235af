#include "Allocation.h"

Status Allocation::Allocate(const std::string& owner, const std::string& clientAddress) {
  if (owner.empty()) {
    return {3, "No device owner given"};
  }
  if (IsAllocated() && owner_ != owner) {
    return {1, "Device is allocated by " + owner_};
  }
  owner_ = owner;
  clientAddress_ = clientAddress;
  return {0, ""};
}

Status Allocation::Release(const std::string& owner) {
  if (!IsAllocated()) {
    return {2, "Device is not allocated"};
  }
  if (owner_ != owner) {
    return {1, "Device is allocated by " + owner_};
  }
  owner_.clear();
  clientAddress_.clear();
  return {0, ""};
}
