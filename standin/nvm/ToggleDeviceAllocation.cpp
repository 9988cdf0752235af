// For the maintainer: toggles the allocation of the device once, and prints the trace. The exit
// status is the result: 0, or 255 for -1.

#include "NvmManipulator.h"

int main() {
  return ToggleDeviceAllocation();
}
