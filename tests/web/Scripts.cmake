# The device from outside, by a script; the real browser among them. The accessibility checker is one file of
# a package that ./test fetches, and so are some of the web servers.
# add_browser_test(NAME SCRIPT [ENV VARIABLE=VALUE...] [ARGUMENTS ARGUMENT...] [LONG]); LONG is handed on to
# the script.
function(add_browser_test name script)
  cmake_parse_arguments(PARSE_ARGV 2 test LONG "" "ENV;ARGUMENTS")
  add_test(NAME ${name}
    COMMAND ${PROJECT_SOURCE_DIR}/device/sandbox ${PROJECT_BINARY_DIR} --private-network
            --read-only ${PROJECT_SOURCE_DIR} /source --
            /usr/bin/env ${test_ENV} /usr/bin/python3 -B /source/tests/web/${script}.py
            ${test_ARGUMENTS} $<$<BOOL:${test_LONG}>:--long>
    COMMAND_EXPAND_LISTS)
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  if(test_LONG)
    set_tests_properties(${name} PROPERTIES TIMEOUT 3600 LABELS long)
  endif()
endfunction()

# Each web server for which a configuration is installed, held against docs/web-servers.md.
foreach(server lighttpd apache2 nginx)
  add_browser_test(web_servers.${server} web_servers ARGUMENTS ${server})
endforeach()
# Of lighttpd web_tests say more.
set_tests_properties(web_servers.lighttpd PROPERTIES LABELS long)

add_browser_test(browser_journey browser_journey)
add_browser_test(accessibility accessibility)
add_browser_test(browser_attacks browser_attacks)
add_browser_test(browser_attacks.long browser_attacks LONG)
add_browser_test(soak soak)
add_browser_test(soak.long soak LONG)
# Begun first, as all that takes long.
set_tests_properties(browser_attacks.long PROPERTIES COST 460)
set_tests_properties(soak.long PROPERTIES COST 150)
