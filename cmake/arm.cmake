# Common to the toolchain files of Debian's cross compilers. `architecture` and `triplet` are Debian's names.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

# The unpacked packages of that processor: tools/make-sysroot.
set(VEMO_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/roots/${architecture}" CACHE PATH
  "The folder that holds the packages of the other processor")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEMO_SYSROOT)
file(REAL_PATH "${VEMO_SYSROOT}" CMAKE_SYSROOT)
if(NOT IS_DIRECTORY "${CMAKE_SYSROOT}/usr")
  message(FATAL_ERROR "There is no ${CMAKE_SYSROOT}: ./package ${architecture} makes it")
endif()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR}
  "${CMAKE_SYSROOT}/usr/lib/${triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
# The compiler finds headers in the sysroot by itself; the linker does not find libraries there.
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "-L\"${CMAKE_SYSROOT}/usr/lib/${triplet}\" -Wl,-rpath-link=\"${CMAKE_SYSROOT}/usr/lib/${triplet}\"")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${CMAKE_EXE_LINKER_FLAGS_INIT}")
