# The shell's own Recycle Bin under Wine is the Unix trash: these tests lay
# out $Recycle.Bin in the prefix and run with a trash folder of their own, so
# that nothing they do could ever reach the user's.
set(test_command env XDG_DATA_HOME=${CMAKE_BINARY_DIR}/recyclebin-xdg ${BROOM_WINE_RUN}
    $<TARGET_FILE:test_${name}> --gtest_brief=1)
target_link_libraries(test_${name} PRIVATE shell32 user32)
