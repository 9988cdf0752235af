# The device from outside, by pytest: its web servers, a real browser, and what stands between them and the programs.
# The accessibility checker is one file of a package that ./test fetches, and so are some of the web servers.

# What these tests run.
add_custom_target(web_tests ALL)
add_dependencies(web_tests device fake-vm test-java-holding test-java-mapping)

# add_web_test(NAME [LONG] [NETWORK] [UNFILTERED] [ENV VARIABLE=VALUE...] TESTS PART...
# [ARGUMENTS ARGUMENT...]): the tests of test_PART.py, in a sandbox of their own.
#
# LONG        more of them, in an hour at most
# NETWORK     the device is not on loopback, but at one of two other addresses, and the kernel limits connections as on
#             an installed device, unless the test is UNFILTERED
function(add_web_test name)
  cmake_parse_arguments(PARSE_ARGV 1 test "LONG;NETWORK;UNFILTERED" "" "ENV;TESTS;ARGUMENTS")
  list(TRANSFORM test_TESTS REPLACE "(.+)" "/source/tests/web/test_\\1.py")
  if(test_LONG)
    list(APPEND test_ARGUMENTS --long)
  endif()
  set(sandbox --private-network)
  if(test_NETWORK)
    set(sandbox --address 192.168.7.1 --address 192.168.7.2)
    list(APPEND test_ARGUMENTS --address 192.168.7.1)
    if(NOT test_UNFILTERED)
      list(APPEND sandbox --packet-filter ${PROJECT_SOURCE_DIR}/web/connections.nft)
    endif()
  endif()
  add_test(NAME ${name}
    COMMAND ${PROJECT_SOURCE_DIR}/standin/sandbox ${PROJECT_BINARY_DIR} ${sandbox}
            --read-only ${PROJECT_SOURCE_DIR} /source --
            /usr/bin/env PYTHONDONTWRITEBYTECODE=1 ${test_ENV}
            /usr/bin/python3 -m pytest ${test_TESTS} ${test_ARGUMENTS})
  # Skipped is a test with no other results.
  set_tests_properties(${name} PROPERTIES TIMEOUT 300
                       SKIP_REGULAR_EXPRESSION "= [0-9]+ skipped(, [0-9]+ deselected)? in ")
  if(test_LONG)
    set_tests_properties(${name} PROPERTIES TIMEOUT 3600 LABELS long)
  endif()
endfunction()

# What stands between every web server and the programs.
add_web_test(gate TESTS gate ARGUMENTS -k "not queue")
add_web_test(gate.queue TESTS gate ARGUMENTS -k queue)
add_web_test(class_archive TESTS class_archive)

# Each web server for which a configuration is installed, held against docs/web-servers.md. What waits most of its time
# runs beside itself.
set(requests serving refusals headers limits parts table)
foreach(server lighttpd apache2 nginx)
  add_web_test(web_servers.${server} TESTS ${requests} ARGUMENTS --server ${server} -m "not waits")
  add_web_test(web_servers.${server}.waits TESTS ${requests} ARGUMENTS --server ${server} -m waits -n 4)
  add_web_test(web_servers.${server}.crowd NETWORK TESTS ${requests} ARGUMENTS --server ${server} -m network)
  add_web_test(web_servers.${server}.network NETWORK TESTS ${requests} ARGUMENTS --server ${server})
  list(APPEND long web_servers.${server}.network)
endforeach()

# What a technician does and sees. At another address what depends on it; with --long all of it, with every web server,
# and with what is ready to be turned on.
add_web_test(browser_journey TESTS journey)
add_web_test(browser_journey.network NETWORK TESTS journey
  ARGUMENTS -k "keyboard or reload or typed_address or warning_leads_back")
add_web_test(browser_journey.tls NETWORK TESTS journey ARGUMENTS --tls --password -k reload)
add_web_test(browser_journey.tls.long NETWORK TESTS journey ARGUMENTS --tls --password)
list(APPEND long browser_journey.tls.long)
add_web_test(accessibility TESTS accessibility)

# What keeps an attack off for its number of connections alone proves nothing of the web server.
add_web_test(browser_attacks TESTS attacks)
add_web_test(browser_attacks.network NETWORK UNFILTERED TESTS attacks)
add_web_test(browser_attacks.tls NETWORK UNFILTERED TESTS attacks ARGUMENTS --tls --password)
add_web_test(browser_attacks.password NETWORK UNFILTERED TESTS attacks ARGUMENTS --password -k "not echo")
list(APPEND long browser_attacks.tls browser_attacks.password)
add_web_test(browser_attacks.long LONG TESTS attacks)
foreach(server lighttpd apache2 nginx)
  add_web_test(browser_journey.${server}.network NETWORK TESTS journey ARGUMENTS --server ${server})
  add_web_test(browser_attacks.${server}.network LONG NETWORK UNFILTERED TESTS attacks ARGUMENTS --server ${server})
  list(APPEND long browser_journey.${server}.network)
endforeach()
foreach(server apache2 nginx)
  add_web_test(browser_attacks.${server} TESTS attacks ARGUMENTS --server ${server})
  list(APPEND long browser_attacks.${server})
endforeach()
set_tests_properties(${long} PROPERTIES LABELS long)

add_web_test(soak TESTS soak)
add_web_test(soak.long LONG TESTS soak)
# Begun first, as all that takes long.
set_tests_properties(browser_attacks browser_journey accessibility class_archive PROPERTIES COST 60)
set_tests_properties(browser_attacks.long PROPERTIES COST 460)
set_tests_properties(soak.long PROPERTIES COST 150)
