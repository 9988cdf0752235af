# 32-bit Arm (ARMv7 with floating point), with Debian's cross compiler: package g++-arm-linux-gnueabihf.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(architecture armhf)
set(triplet arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/arm.cmake)
# Hides the notes on parameter passing, which GCC 7 changed: no older compiler built any part.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${CMAKE_SYSROOT})
