# The tests build browser databases with SQLite itself.
target_link_libraries(test_${name} PRIVATE broom_sqlite3)
