# The device from outside, by pytest: its web servers, a real browser, and what stands between them and the programs.
# The accessibility checker is one file of a package that ./test fetches, and so are some of the web servers.

# What these tests run.
add_custom_target(web_tests ALL)
add_dependencies(web_tests device fake-vm keep-listening test-java-holding test-java-mapping)

# add_web_test(NAME PART... [LONG] [NETWORK] [UNFILTERED] [ENV VARIABLE=VALUE...]
# [ARGUMENTS ARGUMENT...]): the tests of test_PART.py, in a sandbox of their own.
#
# LONG        takes up to an hour
# NETWORK     the device is not on loopback, but at one of two other addresses, and the kernel limits connections as on
#             an installed device, unless the test is UNFILTERED
function(add_web_test name)
  cmake_parse_arguments(PARSE_ARGV 1 test "LONG;NETWORK;UNFILTERED" "" "ENV;ARGUMENTS")
  list(TRANSFORM test_UNPARSED_ARGUMENTS REPLACE "(.+)" "/source/tests/web/test_\\1.py")
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
            /usr/bin/python3 -m pytest ${test_UNPARSED_ARGUMENTS} ${test_ARGUMENTS})
  # Skipped is a test with no other results.
  set_tests_properties(${name} PROPERTIES TIMEOUT 300
                       SKIP_REGULAR_EXPRESSION "= [0-9]+ skipped(, [0-9]+ deselected)? in ")
  if(test_LONG)
    set_tests_properties(${name} PROPERTIES TIMEOUT 3600 LABELS long)
  endif()
endfunction()

# What stands between every web server and the programs.
add_web_test(gate gate ARGUMENTS -k "not queue")
add_web_test(gate.queue gate ARGUMENTS -k queue)
add_web_test(class_archive class_archive)

# What keeps an attack off for its number of connections alone proves nothing of the web server.
add_web_test(browser_attacks attacks)
add_web_test(browser_attacks.network attacks NETWORK UNFILTERED)
add_web_test(browser_attacks.tls attacks LONG NETWORK UNFILTERED ARGUMENTS --tls --password)
add_web_test(browser_attacks.password attacks LONG NETWORK UNFILTERED ARGUMENTS --password -k "not echo")
add_web_test(browser_attacks.long attacks LONG ARGUMENTS --long)

# What a technician does and sees. At another address what depends on it; LONG all of it, and with what is ready to be
# turned on.
add_web_test(browser_journey journey)
add_web_test(browser_journey.network journey NETWORK ARGUMENTS -k "keyboard or reload or typed_address or leads_back")
add_web_test(browser_journey.tls journey NETWORK ARGUMENTS --tls --password -k reload)
add_web_test(browser_journey.tls.long journey LONG NETWORK ARGUMENTS --tls --password)
add_web_test(accessibility accessibility)

# Each web server for which a configuration is installed, held against docs/web-servers.md. What waits most of its time
# runs beside itself.
set(requests serving refusals headers limits parts table)
foreach(server lighttpd apache2 nginx)
  set(by ARGUMENTS --server ${server})
  add_web_test(web_servers.${server} ${requests} ${by} -m "not waits")
  add_web_test(web_servers.${server}.waits ${requests} ${by} -m waits -n 4)
  add_web_test(web_servers.${server}.crowd ${requests} NETWORK ${by} -m network)
  add_web_test(web_servers.${server}.network ${requests} LONG NETWORK ${by})
  add_web_test(browser_journey.${server}.network journey LONG NETWORK ${by})
  add_web_test(browser_attacks.${server}.network attacks LONG NETWORK UNFILTERED ${by} --long)
  if(NOT server STREQUAL lighttpd)
    add_web_test(browser_attacks.${server} attacks LONG ${by})
  endif()
endforeach()

add_web_test(soak soak)
add_web_test(soak.long soak LONG ARGUMENTS --long)
# Begun first, as all that takes long.
set_tests_properties(browser_attacks browser_journey accessibility class_archive PROPERTIES COST 60)
set_tests_properties(browser_attacks.long PROPERTIES COST 460)
set_tests_properties(soak.long PROPERTIES COST 150)
