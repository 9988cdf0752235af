# add_java_classes(NAME SOURCES FOLDER): the target NAME compiles what is below the folder SOURCES
# into FOLDER, a class path, for the oldest Java VM that a device may have. By itself the compiler knows only
# paths that the locale's character set has, and its own VM leaves a file in /tmp.
function(add_java_classes name sources folder)
  file(GLOB_RECURSE files CONFIGURE_DEPENDS ${sources}/*.java)
  add_custom_command(
    OUTPUT ${folder}.stamp
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${folder}
    COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C.UTF-8
            ${Java_JAVAC_EXECUTABLE} -J-XX:-UsePerfData --release 11 -encoding UTF-8 -Xlint:all,-options
            -d ${folder} ${files}
    COMMAND ${CMAKE_COMMAND} -E touch ${folder}.stamp
    DEPENDS ${files}
    VERBATIM)
  add_custom_target(${name} DEPENDS ${folder}.stamp)
endfunction()
