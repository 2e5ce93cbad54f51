# The tests run broom.exe, so it must be built first; they parse its JSON
# with the same header-only library the host writes it with.
add_dependencies(test_${name} broom)
target_include_directories(test_${name} SYSTEM PRIVATE ${BROOM_HEADER_ONLY})
# The version resources are read back and compared with the project's version.
target_compile_definitions(test_${name} PRIVATE BROOM_EXPECTED_VERSION="${PROJECT_VERSION}")
target_link_libraries(test_${name} PRIVATE version shell32)
