# What has to do with Java, again under a VM in front of the program's own: the programs' RUNPATH gives way
# to LD_LIBRARY_PATH, which the web server hands on. FOLDER is that of libjvm.so, as the sandbox sees it.
# PROPERTIES: of all of these tests.
function(add_tests_under_vm name folder)
  cmake_parse_arguments(PARSE_ARGV 2 test "" "" PROPERTIES)
  add_web_test(browser_journey.${name} journey ENV LD_LIBRARY_PATH=${folder})
  add_web_test(class_archive.${name} class_archive ENV LD_LIBRARY_PATH=${folder})
  add_sandbox_test(JavaVm.${name} program/test_set_option_page.py program/test_java_vm.py
    program/test_java_calls.py program/test_start_up_options.py program/test_form_input.py
    program/test_output.py program/test_log_file.py pages/test_sibling_pages.py
    ARGUMENTS -k "not fake" --java-vm ${folder})
  set_tests_properties(browser_journey.${name} class_archive.${name} JavaVm.${name} PROPERTIES
    LABELS long ${test_PROPERTIES})
endfunction()

file(REAL_PATH "${JAVA_JVM_LIBRARY}" own_vm)
file(GLOB vms "/usr/lib/jvm/*/lib/server/libjvm.so")
foreach(vm ${vms})
  string(REGEX REPLACE "^/usr/lib/jvm/([^/]*)/.*" "\\1" jdk "${vm}")
  file(REAL_PATH "${vm}" real_vm)
  if(NOT real_vm STREQUAL own_vm AND NOT IS_SYMLINK /usr/lib/jvm/${jdk})
    cmake_path(GET vm PARENT_PATH folder)
    add_tests_under_vm(${jdk} ${folder})
  endif()
endforeach()

# A runtime of what is needed and no more, made from the JDK that the program is linked to.
add_test(NAME java_runtime
  COMMAND ${PROJECT_SOURCE_DIR}/tools/make-java-runtime ${PROJECT_BINARY_DIR}/java-runtime
          ${PROJECT_BINARY_DIR}/device/java)
set_tests_properties(java_runtime PROPERTIES
  TIMEOUT 300 LABELS long FIXTURES_SETUP java_runtime ENVIRONMENT "JAVA_HOME=${JAVA_HOME_IN_USE}")
add_tests_under_vm(java-runtime /build/java-runtime/lib/server
  PROPERTIES FIXTURES_REQUIRED java_runtime)

# Of all VMs, the small runtime too when it is there.
add_sandbox_test(java_vms LONG vms/test_java_vms.py)
set_tests_properties(java_vms PROPERTIES DEPENDS java_runtime PROCESSORS 2)
