# add_java_classes(NAME SOURCES FOLDER): the target NAME compiles the classes below the folder SOURCES into the class
# path FOLDER, for the oldest Java VM that a device may have. LC_ALL: else javac fails on paths that the locale cannot
# encode. -UsePerfData: else its VM leaves a file in /tmp.
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
