# Finds the JDK: JAVA_HOME when it is set, else Debian's. Sets the cache variables of FindJNI, and
# Java_JAVAC_EXECUTABLE for the Java classes.

file(GLOB debian_jdks "/usr/lib/jvm/java-*-openjdk-*")
find_path(java_home include/jni.h
  NO_CACHE NO_CMAKE_FIND_ROOT_PATH HINTS /usr/lib/jvm/default-java ${debian_jdks})
# For another processor: that processor's Java VM, and the compiler of this machine's JDK. The headers are the same.
set(build_java_home "${java_home}")
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSROOT)
  file(GLOB java_vms "${CMAKE_SYSROOT}/usr/lib/jvm/java-*/lib/server/libjvm.so")
  if(java_vms)
    list(GET java_vms 0 java_vm)
    file(REAL_PATH "${java_vm}/../../.." java_home)
  endif()
endif()
if(NOT "$ENV{JAVA_HOME}" STREQUAL "")
  file(REAL_PATH "$ENV{JAVA_HOME}" java_home)
  if(NOT CMAKE_CROSSCOMPILING)
    set(build_java_home "${java_home}")
  endif()
endif()

# Another JDK than last time: forgets the paths in the old one.
if(DEFINED JAVA_HOME_IN_USE AND NOT java_home STREQUAL JAVA_HOME_IN_USE)
  unset(JAVA_INCLUDE_PATH CACHE)
  unset(JAVA_INCLUDE_PATH2 CACHE)
  unset(JAVA_JVM_LIBRARY CACHE)
  unset(Java_JAVAC_EXECUTABLE CACHE)
endif()
set(JAVA_HOME_IN_USE "${java_home}" CACHE INTERNAL "The JDK that the paths below were found in")

# FindJNI does not find Debian's JDK by itself; it accepts cached paths.
find_path(JAVA_INCLUDE_PATH jni.h PATHS "${java_home}/include" "${build_java_home}/include"
  NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
find_path(JAVA_INCLUDE_PATH2 jni_md.h PATHS "${java_home}/include/linux" "${build_java_home}/include/linux"
  NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
find_library(JAVA_JVM_LIBRARY jvm PATHS "${java_home}/lib/server" NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
find_program(Java_JAVAC_EXECUTABLE javac PATHS "${build_java_home}/bin"
  NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(CMAKE_CROSSCOMPILING)
  # Without Debian's JDK: the compiler in PATH.
  find_program(Java_JAVAC_EXECUTABLE javac NO_CMAKE_FIND_ROOT_PATH)
endif()
