# 64-bit Arm, with Debian's cross compiler: package g++-aarch64-linux-gnu.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(architecture arm64)
set(triplet aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/arm.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -cpu max,pauth-impdef=on -L ${CMAKE_SYSROOT})
