# The installer's test: VelmoraPhoneSetup.exe installs, starts, stops and
# uninstalls the phone in a Wine prefix of its own, on its own Xvfb display.
# It runs natively (bash drives Wine itself), not through the emulator.
if(TARGET velphone_setup)
  add_test(NAME installer
           COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/installer_test.sh
                   ${CMAKE_BINARY_DIR}/installer/VelmoraPhoneSetup.exe ${CMAKE_BINARY_DIR}/installer-test)
  set_tests_properties(installer PROPERTIES TIMEOUT 300 LABELS win)
endif()
