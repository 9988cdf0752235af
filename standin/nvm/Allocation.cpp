#include "Allocation.h"

#include <utility>

Status Allocation::Allocate(std::string owner, std::string clientAddress) {
  if (owner.empty()) {
    return {3, "No device owner given"};
  }
  if (IsAllocated() && owner_ != owner) {
    return {1, "Device is allocated by " + owner_};
  }
  owner_ = std::move(owner);
  clientAddress_ = std::move(clientAddress);
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
