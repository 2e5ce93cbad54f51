# The tests start a small window program (app/TestApp.cpp) under the names
# the definitions use. It is linked statically: the tests run copies of it
# from their temporary folders, away from the runtime DLLs in bin.
add_executable(broom_testapp WIN32 ${dir}/app/TestApp.cpp)
target_compile_options(broom_testapp PRIVATE ${BROOM_WARNINGS})
target_link_options(broom_testapp PRIVATE -municode -static)
add_dependencies(test_${name} broom_testapp)
target_link_libraries(test_${name} PRIVATE user32)
# Windows need a display. The program runs in a Wine desktop of its own whose
# display driver is Wine's null driver (see scripts/wine-null-run.sh), so its
# windows exist without an X server, and the programs it starts share it;
# nothing in the prefix changes.
set(test_command ${CMAKE_SOURCE_DIR}/scripts/wine-null-run.sh --gtest ${BROOM_WINE} ${BROOM_WINEPREFIX}
    $<TARGET_FILE:test_${name}> --gtest_brief=1)
