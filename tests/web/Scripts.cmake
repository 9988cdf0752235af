# The device from outside, by a script; the real browser among them. The accessibility checker is one file of
# a package that ./test fetches, and so are some of the web servers.
# add_browser_test(NAME SCRIPT [NETWORK] [STATE FOLDER] [ENV VARIABLE=VALUE...] [ARGUMENTS ARGUMENT...] [LONG]); LONG is handed
# on to the script. What it leaves in /tmp stays in the folder STATE. NETWORK: the device is not on loopback, but at one of two other addresses, and the kernel limits
# connections as on an installed device, but for the attacks.
function(add_browser_test name script)
  cmake_parse_arguments(PARSE_ARGV 2 test "LONG;NETWORK" "STATE" "ENV;ARGUMENTS")
  set(network --private-network)
  if(test_STATE)
    file(MAKE_DIRECTORY ${test_STATE}/app ${test_STATE}/tmp)
    list(APPEND network --state ${test_STATE})
  endif()
  if(test_NETWORK)
    set(network --address 192.168.7.1 --address 192.168.7.2)
    # What keeps an attack off for its number of connections alone proves nothing of the web server.
    if(NOT script STREQUAL browser_attacks)
      list(APPEND network --packet-filter ${PROJECT_SOURCE_DIR}/web/connections.nft)
    endif()
    list(PREPEND test_ARGUMENTS --address 192.168.7.1)
  endif()
  add_test(NAME ${name}
    COMMAND ${PROJECT_SOURCE_DIR}/standin/sandbox ${PROJECT_BINARY_DIR} ${network}
            --read-only ${PROJECT_SOURCE_DIR} /source --
            /usr/bin/env ${test_ENV} /usr/bin/python3 -B /source/tests/web/${script}.py
            ${test_ARGUMENTS} $<$<BOOL:${test_LONG}>:--long>
    COMMAND_EXPAND_LISTS)
  set_tests_properties(${name} PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
  if(test_LONG)
    set_tests_properties(${name} PROPERTIES TIMEOUT 3600 LABELS long)
  endif()
endfunction()

# Each web server for which a configuration is installed, held against docs/web-servers.md.
foreach(server lighttpd apache2 nginx)
  add_browser_test(web_servers.${server} web_servers ARGUMENTS ${server})
  add_browser_test(web_servers.${server}.network web_servers NETWORK ARGUMENTS ${server})
  set_tests_properties(web_servers.${server}.network PROPERTIES LABELS long)
  add_browser_test(web_servers.${server}.crowd web_servers NETWORK ARGUMENTS ${server}
    Table.test_serves_another_address_beside_400_slow_clients
    Table.test_serves_another_address_beside_requests_given_up)
  # The short form has these of lighttpd.
  add_browser_test(browser_journey.${server}.network browser_journey NETWORK ARGUMENTS --server ${server})
  set_tests_properties(browser_journey.${server}.network PROPERTIES LABELS long)
  add_browser_test(browser_attacks.${server}.network browser_attacks NETWORK LONG ARGUMENTS --server ${server})
endforeach()
foreach(server apache2 nginx)
  add_browser_test(browser_attacks.${server} browser_attacks ARGUMENTS --server ${server})
  set_tests_properties(browser_attacks.${server} PROPERTIES LABELS long)
endforeach()
# Of lighttpd web_tests say more.
set_tests_properties(web_servers.lighttpd PROPERTIES LABELS long)

add_browser_test(browser_journey browser_journey)
# What depends on the address. With --long all of it, above.
add_browser_test(browser_journey.network browser_journey NETWORK
  ARGUMENTS Ways Journey.test_the_keyboard_alone_sets_the_timeout Journey.test_the_warning_leads_back_to_the_form)
# Its pictures are in build/pictures/tmp.
add_browser_test(accessibility accessibility STATE ${PROJECT_BINARY_DIR}/pictures)
# What is ready to be turned on.
add_browser_test(browser_journey.tls browser_journey NETWORK
  ARGUMENTS --tls --password Ways.test_a_reload_of_the_success_stores_the_value_again)
add_browser_test(browser_journey.tls.long browser_journey NETWORK
  ARGUMENTS --tls --password Journey Reboot Ways InjectedMarkup)
add_browser_test(browser_attacks.tls browser_attacks NETWORK ARGUMENTS --tls --password)
add_browser_test(browser_attacks.password browser_attacks NETWORK ARGUMENTS --password ForeignPages)
set_tests_properties(browser_journey.tls.long browser_attacks.tls browser_attacks.password PROPERTIES LABELS long)
add_browser_test(browser_attacks browser_attacks)
add_browser_test(browser_attacks.network browser_attacks NETWORK)
add_browser_test(browser_attacks.long browser_attacks LONG)
add_browser_test(soak soak)
add_browser_test(soak.long soak LONG)
# Begun first, as all that takes long.
set_tests_properties(browser_attacks.long PROPERTIES COST 460)
set_tests_properties(soak.long PROPERTIES COST 150)
