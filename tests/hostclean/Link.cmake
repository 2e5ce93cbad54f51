# broom.exe's clean against running programs and the Recycle Bin. The tests
# start copies of the running tests' window program (tests/running/app), so
# they run in a Wine desktop with the null display driver as those do; they
# lay out C:\$Recycle.Bin in the prefix, so they run alone (the engine's
# Recycle Bin tests remove that folder), with a HOME and XDG_DATA_HOME of
# their own so that nothing could reach the user's trash.
target_sources(test_${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/running/TestApps.cpp)
add_dependencies(test_${name} broom broom_testapp)
target_include_directories(test_${name} SYSTEM PRIVATE ${BROOM_HEADER_ONLY})
target_link_libraries(test_${name} PRIVATE user32 advapi32)
set(test_command env HOME=${CMAKE_BINARY_DIR}/hostclean-home XDG_DATA_HOME=${CMAKE_BINARY_DIR}/hostclean-home/share
    ${CMAKE_SOURCE_DIR}/scripts/wine-null-run.sh --gtest ${BROOM_WINE} ${BROOM_WINEPREFIX}
    $<TARGET_FILE:test_${name}> --gtest_brief=1)
set(test_serial TRUE)
