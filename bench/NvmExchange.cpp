// One exchange with an nVm service, for its cost: exits 0 when the reply came.

#include <string>

#include "NvmManipulator.h"

int main() {
  std::string reply;
  NvmManipulator nvm;
  return nvm.SendToNvm(NVM_SERVICE_ADDRESS, "nvmGetDeviceStatus", reply) == 0 ? 0 : 1;
}
