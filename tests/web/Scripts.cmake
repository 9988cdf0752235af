# The device from outside, in Python; the real browser among it. The accessibility checker is one file of a package that
# ./test fetches, and so are some of the web servers.

# add_device_test(NAME [NETWORK] [UNFILTERED] [STATE FOLDER] [ENV VARIABLE=VALUE...] COMMAND WORD...): a command of
# Python's in the sandbox. What it leaves in /tmp stays in the folder STATE. NETWORK: the device is not on loopback, but
# at one of two other addresses, and the kernel limits connections as on an installed device, unless the test is
# UNFILTERED.
function(add_device_test name)
  cmake_parse_arguments(PARSE_ARGV 1 test "NETWORK;UNFILTERED" "STATE" "ENV;COMMAND")
  set(network --private-network)
  if(test_STATE)
    file(MAKE_DIRECTORY ${test_STATE}/app ${test_STATE}/tmp)
    list(APPEND network --state ${test_STATE})
  endif()
  if(test_NETWORK)
    set(network --address 192.168.7.1 --address 192.168.7.2)
    if(NOT test_UNFILTERED)
      list(APPEND network --packet-filter ${PROJECT_SOURCE_DIR}/web/connections.nft)
    endif()
  endif()
  add_test(NAME ${name}
    COMMAND ${PROJECT_SOURCE_DIR}/standin/sandbox ${PROJECT_BINARY_DIR} ${network}
            --read-only ${PROJECT_SOURCE_DIR} /source --
            /usr/bin/env PYTHONDONTWRITEBYTECODE=1 ${test_ENV} /usr/bin/python3 ${test_COMMAND})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
endfunction()

# add_browser_test(NAME [NETWORK] [LONG] [UNFILTERED] [STATE FOLDER] [ENV VARIABLE=VALUE...] TESTS PART...
# [ARGUMENTS ARGUMENT...]): the tests of test_PART.py, which have a browser of their own. LONG is handed on.
function(add_browser_test name)
  cmake_parse_arguments(PARSE_ARGV 1 test "LONG;NETWORK;UNFILTERED" "STATE" "ENV;TESTS;ARGUMENTS")
  list(TRANSFORM test_TESTS REPLACE "([a-z]+)(.*)" "/source/tests/web/test_\\1.py\\2")
  set(options ENV ${test_ENV} STATE ${test_STATE})
  if(test_NETWORK)
    list(APPEND options NETWORK)
    list(APPEND test_ARGUMENTS --address 192.168.7.1)
  endif()
  if(test_UNFILTERED)
    list(APPEND options UNFILTERED)
  endif()
  if(test_LONG)
    list(APPEND test_ARGUMENTS --long)
  endif()
  add_device_test(${name} ${options} COMMAND -m pytest ${test_TESTS} ${test_ARGUMENTS})
  if(test_LONG)
    set_tests_properties(${name} PROPERTIES TIMEOUT 3600 LABELS long)
  endif()
endfunction()

# What these tests run.
add_custom_target(web_tests ALL)
add_dependencies(web_tests device fake-vm test-java-holding test-java-mapping)

# What stands between every web server and the programs.
set(class_archive -m pytest /source/tests/web/test_class_archive.py)
add_device_test(gate COMMAND -m pytest /source/tests/web/test_gate.py)
add_device_test(class_archive COMMAND ${class_archive})

# Each web server for which a configuration is installed, held against docs/web-servers.md. What waits most of its time
# runs beside itself.
foreach(part serving refusals headers limits parts table)
  list(APPEND server_tests /source/tests/web/test_${part}.py)
endforeach()
foreach(server lighttpd apache2 nginx)
  set(tests -m pytest --server ${server} ${server_tests})
  add_device_test(web_servers.${server} COMMAND ${tests} -m "not waits")
  add_device_test(web_servers.${server}.waits COMMAND ${tests} -m waits -n 4)
  add_device_test(web_servers.${server}.crowd NETWORK COMMAND ${tests} --address 192.168.7.1 -m network)
  add_device_test(web_servers.${server}.network NETWORK COMMAND ${tests} --address 192.168.7.1)
  set_tests_properties(web_servers.${server}.network PROPERTIES LABELS long)
endforeach()

# What a technician does and sees.
set(journey journey reboot ways looks)
add_browser_test(browser_journey TESTS ${journey})
# Its pictures are in build/pictures/tmp.
add_browser_test(accessibility STATE ${PROJECT_BINARY_DIR}/pictures TESTS accessibility)
# What depends on the address, and what is ready to be turned on. With --long all of it, with every web server.
add_browser_test(browser_journey.network NETWORK TESTS ways
  journey::test_the_keyboard_alone_sets_the_timeout journey::test_the_warning_leads_back_to_the_form)
add_browser_test(browser_journey.tls NETWORK
  TESTS ways::test_a_reload_of_the_success_stores_the_value_again ARGUMENTS --tls --password)
add_browser_test(browser_journey.tls.long NETWORK TESTS journey reboot ways ARGUMENTS --tls --password)
set(long browser_journey.tls.long)

# What keeps an attack off for its number of connections alone proves nothing of the web server.
add_browser_test(browser_attacks TESTS attacks)
add_browser_test(browser_attacks.network NETWORK UNFILTERED TESTS attacks)
add_browser_test(browser_attacks.tls NETWORK UNFILTERED TESTS attacks ARGUMENTS --tls --password)
add_browser_test(browser_attacks.password NETWORK UNFILTERED TESTS attacks ARGUMENTS --password -k "not echo")
list(APPEND long browser_attacks.tls browser_attacks.password)
add_browser_test(browser_attacks.long LONG TESTS attacks)
foreach(server lighttpd apache2 nginx)
  add_browser_test(browser_journey.${server}.network NETWORK TESTS ${journey} ARGUMENTS --server ${server})
  add_browser_test(browser_attacks.${server}.network NETWORK UNFILTERED LONG TESTS attacks ARGUMENTS --server ${server})
  list(APPEND long browser_journey.${server}.network)
endforeach()
foreach(server apache2 nginx)
  add_browser_test(browser_attacks.${server} TESTS attacks ARGUMENTS --server ${server})
  list(APPEND long browser_attacks.${server})
endforeach()
set_tests_properties(${long} PROPERTIES LABELS long)

add_browser_test(soak TESTS soak)
add_browser_test(soak.long LONG TESTS soak)
# Begun first, as all that takes long.
set_tests_properties(browser_attacks.long PROPERTIES COST 460)
set_tests_properties(soak.long PROPERTIES COST 150)
