# Finds the JDK: JAVA_HOME when it is set, else the one that Debian installs. Leaves where it
# is to FindJNI, and Java_JAVAC_EXECUTABLE for the classes beside the programs.

if(NOT "$ENV{JAVA_HOME}" STREQUAL "")
  file(REAL_PATH "$ENV{JAVA_HOME}" java_home)
else()
  file(GLOB debian_jdks "/usr/lib/jvm/java-*-openjdk-*")
  find_path(java_home include/jni.h NO_CACHE HINTS /usr/lib/jvm/default-java ${debian_jdks})
endif()

# Another JDK than last time: what was found in the old one is void.
if(DEFINED JAVA_HOME_IN_USE AND NOT java_home STREQUAL JAVA_HOME_IN_USE)
  unset(JAVA_INCLUDE_PATH CACHE)
  unset(JAVA_INCLUDE_PATH2 CACHE)
  unset(JAVA_JVM_LIBRARY CACHE)
  unset(Java_JAVAC_EXECUTABLE CACHE)
endif()
set(JAVA_HOME_IN_USE "${java_home}" CACHE INTERNAL "The JDK that the paths below were found in")

# FindJNI does not find Debian's JDK unaided; it takes what is known already.
find_path(JAVA_INCLUDE_PATH jni.h PATHS "${java_home}/include" NO_DEFAULT_PATH)
find_path(JAVA_INCLUDE_PATH2 jni_md.h PATHS "${java_home}/include/linux" NO_DEFAULT_PATH)
find_library(JAVA_JVM_LIBRARY jvm PATHS "${java_home}/lib/server" NO_DEFAULT_PATH)
find_program(Java_JAVAC_EXECUTABLE javac PATHS "${java_home}/bin" NO_DEFAULT_PATH)
