# Test execution. Cross-built: every test executable runs through Wine in the
# project's own prefix, with one wineserver kept alive for the whole run by a
# fixture (Wine's helper processes inherit the launcher's stderr, and anything
# reading a test's output to its end waits for them unless a server is up).
# Native Windows build: tests run directly.

set(SKORVA_WINEPREFIX "${CMAKE_BINARY_DIR}/wineprefix" CACHE PATH "Wine prefix used by the tests")
set(SKORVA_PYTHON /usr/bin/python3 CACHE FILEPATH "Interpreter for the process-level tests")

if(CMAKE_CROSSCOMPILING)
  configure_file("${CMAKE_CURRENT_LIST_DIR}/wine-run.sh.in" "${CMAKE_BINARY_DIR}/wine-run" @ONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_BINARY_DIR}/wine-run")
  set(SKORVA_WINE_RUN "${CMAKE_BINARY_DIR}/wine-run")

  add_test(NAME wine_server_start
           COMMAND "${CMAKE_CURRENT_LIST_DIR}/wine-fixture.sh" start "${SKORVA_WINEPREFIX}" "$<TARGET_FILE:evtsim>"
                   "$<TARGET_FILE:ecsim>" "$<TARGET_FILE:evtsim_events>" "$<TARGET_FILE:evtsim_more>"
                   "$<TARGET_FILE:dssim_netapi32>" "$<TARGET_FILE:dssim_ntdsapi>")
  set_tests_properties(wine_server_start PROPERTIES FIXTURES_SETUP wine)
  add_test(NAME wine_server_stop COMMAND "${CMAKE_CURRENT_LIST_DIR}/wine-fixture.sh" stop "${SKORVA_WINEPREFIX}")
  set_tests_properties(wine_server_stop PROPERTIES FIXTURES_CLEANUP wine)
else()
  set(SKORVA_WINE_RUN "")
endif()

# A GoogleTest executable as one CTest test.
function(skorva_add_wine_test name target)
  add_test(NAME ${name} COMMAND ${target} --gtest_brief=1)
  set_tests_properties(${name} PROPERTIES TIMEOUT 600)
  if(CMAKE_CROSSCOMPILING)
    set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED wine)
  endif()
endfunction()

# A pytest file that drives the real executable.
function(skorva_add_pytest name file)
  add_test(NAME ${name}
           COMMAND ${SKORVA_PYTHON} -m pytest -q -p no:cacheprovider "${file}"
           WORKING_DIRECTORY "${CMAKE_SOURCE_DIR}/tests/e2e")
  set_tests_properties(${name} PROPERTIES TIMEOUT 900
    ENVIRONMENT "SKORVA_EXE=$<TARGET_FILE:skorva-winevtlog>;EVTSIM_TOOL=$<TARGET_FILE:evtsim-store>;DSSIM_PROBE=$<TARGET_FILE:dssim-probe>;SKORVA_WINE_RUN=${SKORVA_WINE_RUN};SKORVA_BUILD_DIR=${CMAKE_BINARY_DIR};SKORVA_SOURCE_DIR=${CMAKE_SOURCE_DIR};WINEPREFIX=${SKORVA_WINEPREFIX}")
  if(CMAKE_CROSSCOMPILING)
    set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED wine)
  endif()
endfunction()
