# The tests run broom.exe, so it must be built first; they parse its JSON
# with the same header-only library the host writes it with.
add_dependencies(test_${name} broom)
target_include_directories(test_${name} SYSTEM PRIVATE ${CMAKE_BINARY_DIR}/host/header-only)
