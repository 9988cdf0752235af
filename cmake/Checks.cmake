# Static checks of the sources, as tests, so that they are counted.

# clang-tidy uses the compilation database of the sanitizers' build. Each file has a stamp that is newer than the
# objects of its target: so only changed files are checked again.
function(add_tidy_target name)
  set(settings ${PROJECT_SOURCE_DIR}/.clang-tidy ${PROJECT_SOURCE_DIR}/tests/.clang-tidy)
  foreach(folder ${ARGN})
    get_property(targets DIRECTORY ${PROJECT_SOURCE_DIR}/${folder} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target ${targets})
      get_target_property(type ${target} TYPE)
      if(type STREQUAL UTILITY)
        continue()
      endif()
      get_target_property(sources ${target} SOURCES)
      get_target_property(source_folder ${target} SOURCE_DIR)
      list(FILTER sources INCLUDE REGEX "^[^$].*cpp$")
      foreach(source ${sources})
        cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY ${source_folder} NORMALIZE)
        cmake_path(GET source FILENAME file)
        set(stamp ${PROJECT_BINARY_DIR}/tidy/${target}/${file}.stamp)
        add_custom_command(
          OUTPUT ${stamp}
          COMMAND clang-tidy --quiet -p ${PROJECT_BINARY_DIR} ${source}
          COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
          DEPENDS ${source} ${settings} $<TARGET_OBJECTS:${target}>
          COMMENT "clang-tidy ${source}"
          VERBATIM)
        list(APPEND stamps ${stamp})
      endforeach()
      file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/tidy/${target})
    endforeach()
  endforeach()
  add_custom_target(${name} DEPENDS ${stamps})
  add_test(NAME ${name}
    COMMAND ${CMAKE_COMMAND} --build ${PROJECT_BINARY_DIR} --target ${name} -- -k 0)
  set_tests_properties(${name} PROPERTIES TIMEOUT 1800 RUN_SERIAL ON)
endfunction()

if(VEMO_SANITIZE)
  if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    add_tidy_target(clang-tidy platform src pages web standin bench)
    add_tidy_target(clang-tidy.tests tests tests/fuzz)
    set_tests_properties(clang-tidy.tests PROPERTIES LABELS long)
  endif()
else()
  file(GLOB_RECURSE formatted CONFIGURE_DEPENDS LIST_DIRECTORIES false
    ${PROJECT_SOURCE_DIR}/src/*.h ${PROJECT_SOURCE_DIR}/src/*.cpp
    ${PROJECT_SOURCE_DIR}/platform/*.h ${PROJECT_SOURCE_DIR}/platform/*.cpp
    ${PROJECT_SOURCE_DIR}/pages/*.h ${PROJECT_SOURCE_DIR}/pages/*.cpp
    ${PROJECT_SOURCE_DIR}/web/*.h ${PROJECT_SOURCE_DIR}/web/*.cpp
    ${PROJECT_SOURCE_DIR}/standin/*.h ${PROJECT_SOURCE_DIR}/standin/*.cpp
    ${PROJECT_SOURCE_DIR}/packaging/*.cpp
    ${PROJECT_SOURCE_DIR}/bench/*.h ${PROJECT_SOURCE_DIR}/bench/*.cpp
    ${PROJECT_SOURCE_DIR}/tests/*.h ${PROJECT_SOURCE_DIR}/tests/*.cpp)
  add_test(NAME format COMMAND clang-format --dry-run -Werror ${formatted})
  # Every shell script, and what the top-level scripts source.
  add_test(NAME shellcheck
    COMMAND sh -c "grep -rlE '^#!.*sh$' --exclude-dir='build*' --exclude-dir=.git . | xargs shellcheck -x tools/*.sh"
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
endif()
