# The window tests drive broomw.exe on a virtual X display (Xvfb), so they
# run through a runner of their own instead of the headless one, and they
# write their screenshots as PNG through the system's imaging component.
add_dependencies(test_${name} broomw)
target_link_libraries(test_${name} PRIVATE windowscodecs ole32 uuid gdi32 user32)
set(test_command ${CMAKE_SOURCE_DIR}/scripts/wine-x11-run.sh --gtest ${BROOM_WINE} ${BROOM_WINEPREFIX}
    $<TARGET_FILE:test_${name}> --gtest_brief=1)
# Its desktop and X display go away when it ends; it runs alone, so that no
# program another test starts at that moment meets them half gone.
set(test_serial TRUE)
# The dialog about running programs is driven with copies of the running
# tests' window program (tests/running/app), started as chrome.exe.
target_sources(test_${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/running/TestApps.cpp)
add_dependencies(test_${name} broom_testapp)
