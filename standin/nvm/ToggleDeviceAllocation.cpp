// For the maintainer: toggles the allocation of the device once, so that the trace can be looked
// at. Ends with the result as its status: 0, or 255 for -1.

#include "NvmManipulator.h"

int main() {
  return ToggleDeviceAllocation();
}
