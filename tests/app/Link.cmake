# The host code both hosts share, tested in-process; the tests read the
# quarantine's JSON with the same header-only library it is written with.
target_link_libraries(test_${name} PRIVATE broomapp)
target_include_directories(test_${name} SYSTEM PRIVATE ${BROOM_HEADER_ONLY})
