# The tests run broom.exe, so it must be built first; they parse its JSON
# with the same header-only library the host writes it with.
add_dependencies(test_${name} broom)
target_include_directories(test_${name} SYSTEM PRIVATE ${BROOM_HEADER_ONLY})
# The version resources of broomcore.dll and both programs are read back and
# compared with the project's version and company.
add_dependencies(test_${name} broomw)
target_compile_definitions(test_${name} PRIVATE BROOM_EXPECTED_VERSION="${PROJECT_VERSION}"
                           BROOM_EXPECTED_COMPANY="${BROOM_PUBLISHER}")
target_link_libraries(test_${name} PRIVATE version shell32)
# The fleet tests read the scheduled clean back through the Task Scheduler's
# COM interface, and write the policies every Broom of the prefix reads: the
# program runs alone, so that no other test's broom.exe meets them.
target_link_libraries(test_${name} PRIVATE taskschd ole32 oleaut32 uuid)
set(test_serial TRUE)
target_link_libraries(test_${name} PRIVATE ws2_32)
# The cookie tests build browser databases with SQLite itself.
target_link_libraries(test_${name} PRIVATE broom_sqlite3)
