# velphone.exe's window under Wine on an X display of its own, driven from
# Linux (tests/win/window_test.py): a native command, not run through the
# emulator. It calls the native velphone-cli and checks speech with the native
# speech_match, so it needs the default preset built first.
if(TARGET velphone_app)
  set(VELMORA_NATIVE_BUILD_DIR "${PROJECT_SOURCE_DIR}/build/default" CACHE PATH
      "Native build holding velphone-cli and tools/speech_match, for the window test")
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  add_test(NAME window_test
           COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/window_test.py
                   --exe $<TARGET_FILE:velphone_app>
                   --native-build ${VELMORA_NATIVE_BUILD_DIR}
                   --work ${CMAKE_BINARY_DIR}/window-test
                   --screenshots ${CMAKE_BINARY_DIR}/screenshots)
  set_tests_properties(window_test PROPERTIES TIMEOUT ${VELMORA_TEST_TIMEOUT} LABELS "win")
endif()
