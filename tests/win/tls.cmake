# TLS of the Windows build (Schannel) under Wine against a Kamailio started
# on the Linux side by tests/win/tls_wine_test.py: a native command, not run
# through the emulator; the probe it runs is built here.
add_executable(tls_register_probe ${CMAKE_CURRENT_LIST_DIR}/tls_register_probe.cpp)
target_link_libraries(tls_register_probe PRIVATE kelsip)
velmora_warnings(tls_register_probe)
find_package(Python3 REQUIRED COMPONENTS Interpreter)
add_test(NAME tls_wine_test
         COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/tls_wine_test.py
                 --probe $<TARGET_FILE:tls_register_probe>
                 --work ${CMAKE_BINARY_DIR}/tls-wine-test)
set_tests_properties(tls_wine_test PROPERTIES TIMEOUT ${VELMORA_TEST_TIMEOUT} LABELS "win"
                                              ENVIRONMENT "${velmora_test_environment}")
