target_link_libraries(test_${name} PRIVATE advapi32)
