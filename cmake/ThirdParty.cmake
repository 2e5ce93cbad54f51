# pugixml from Debian's source package, built in wide-character mode.
file(GLOB BROOM_PUGIXML_DIRS LIST_DIRECTORIES true ${BROOM_THIRD_PARTY_DIR}/pugixml-*)
list(FILTER BROOM_PUGIXML_DIRS INCLUDE REGEX "pugixml-[0-9.]+$")
if(NOT BROOM_PUGIXML_DIRS)
  message(FATAL_ERROR "pugixml sources not found under ${BROOM_THIRD_PARTY_DIR}: run scripts/setup.sh")
endif()
list(GET BROOM_PUGIXML_DIRS 0 BROOM_PUGIXML_DIR)
add_library(pugixml_wide STATIC ${BROOM_PUGIXML_DIR}/src/pugixml.cpp)
# Installed beside the engine's headers and as a static library: hosts that
# read definition nodes (xml::NodePtr) inline pugixml calls, and the wide
# mode must reach them too.
target_include_directories(pugixml_wide SYSTEM PUBLIC $<BUILD_INTERFACE:${BROOM_PUGIXML_DIR}/src>)
target_include_directories(pugixml_wide INTERFACE $<INSTALL_INTERFACE:include/broom>)
target_compile_definitions(pugixml_wide PUBLIC PUGIXML_WCHAR_MODE)
set_target_properties(pugixml_wide PROPERTIES POSITION_INDEPENDENT_CODE ON EXPORT_NAME pugixml)

# SQLite from Debian's source package: scripts/setup.sh makes the amalgamation
# with the package's own tools, and it is cross-built here as a static library
# that only broomcore.dll (and the tests that build browser databases) link.
file(GLOB BROOM_SQLITE_DIRS LIST_DIRECTORIES true ${BROOM_THIRD_PARTY_DIR}/sqlite3-*/amalgamation)
if(NOT BROOM_SQLITE_DIRS)
  message(FATAL_ERROR "the SQLite amalgamation was not found under ${BROOM_THIRD_PARTY_DIR}: run scripts/setup.sh")
endif()
list(GET BROOM_SQLITE_DIRS 0 BROOM_SQLITE_DIR)
add_library(broom_sqlite3 STATIC ${BROOM_SQLITE_DIR}/sqlite3.c)
target_include_directories(broom_sqlite3 SYSTEM PUBLIC ${BROOM_SQLITE_DIR})
# dbstat measures what a clean frees; nothing loads extensions.
target_compile_definitions(broom_sqlite3 PRIVATE
  SQLITE_ENABLE_DBSTAT_VTAB SQLITE_OMIT_LOAD_EXTENSION SQLITE_DEFAULT_MEMSTATUS=0)
set_target_properties(broom_sqlite3 PROPERTIES POSITION_INDEPENDENT_CODE ON)

# nlohmann/json for the engine's own sources (the Bookmarks files of browsers);
# its tree is linked alone, since /usr/include must never reach the cross compiler.
set(BROOM_ENGINE_DEPS ${CMAKE_BINARY_DIR}/engine-header-only)
if(NOT EXISTS /usr/include/nlohmann)
  message(FATAL_ERROR "/usr/include/nlohmann not found: run scripts/setup.sh (nlohmann-json3-dev)")
endif()
file(MAKE_DIRECTORY ${BROOM_ENGINE_DEPS})
file(CREATE_LINK /usr/include/nlohmann ${BROOM_ENGINE_DEPS}/nlohmann SYMBOLIC)

# GoogleTest from Debian's googletest package, cross-built.
if(BROOM_TESTS)
  set(BROOM_GTEST_DIR /usr/src/googletest/googletest CACHE PATH "GoogleTest sources")
  if(NOT EXISTS ${BROOM_GTEST_DIR}/src/gtest-all.cc)
    message(FATAL_ERROR "GoogleTest sources not found in ${BROOM_GTEST_DIR}: run scripts/setup.sh")
  endif()
  add_library(broom_gtest STATIC ${BROOM_GTEST_DIR}/src/gtest-all.cc)
  target_include_directories(broom_gtest SYSTEM PUBLIC ${BROOM_GTEST_DIR}/include
                             PRIVATE ${BROOM_GTEST_DIR})
endif()

# CLI11 and nlohmann/json, header-only Debian packages, for the hosts (and
# the tests and tools that read their JSON). Their headers live in
# /usr/include beside glibc's, which must never reach the cross compiler; a
# folder of symlinks to just those two trees is added instead.
set(BROOM_HEADER_ONLY ${CMAKE_BINARY_DIR}/header-only)
file(MAKE_DIRECTORY ${BROOM_HEADER_ONLY})
foreach(tree CLI nlohmann)
  if(NOT EXISTS /usr/include/${tree})
    message(FATAL_ERROR "/usr/include/${tree} not found: run scripts/setup.sh (libcli11-dev, nlohmann-json3-dev)")
  endif()
  file(CREATE_LINK /usr/include/${tree} ${BROOM_HEADER_ONLY}/${tree} SYMBOLIC)
endforeach()
# The engine writes JSON itself too (policies, run reports): it sees the same folder.
set(BROOM_JSON_DIR ${BROOM_HEADER_ONLY})
