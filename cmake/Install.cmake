# cmake --install build/<arch> --prefix DIR lays out what a host developer
# needs, as Windows C++ libraries are shipped:
#   bin/            broomcore.dll, the MinGW runtime DLLs, broom.exe, broomw.exe and defs/
#   include/broom/  the public headers in their folders, pugixml's headers
#   lib/            libbroomcore.dll.a, pugixml (static, wide characters)
#   lib/cmake/Broom the package: find_package(Broom) gives Broom::core
#   docs/, examples/minimal-host/, README.md, licenses/
#   admx/           broom.admx and en-US/broom.adml, the Group Policy template
include(CMakePackageConfigHelpers)

# Public headers: every header of every engine folder (BROOM_FOLDERS) is
# installed below include/broom/<folder>, except those listed here, which
# only the engine's own sources include. A new engine folder needs nothing
# more than its place in BROOM_FOLDERS; add its internal headers to this
# list. scripts/check-package.sh compiles each installed header on its own
# against the installed package, so a public header that includes a left-out
# one (or a file of the source tree) fails there.
set(BROOM_INTERNAL_HEADERS
  browserdb/ChromiumBookmarks.h  # the bookmark files' URLs (nlohmann/json)
  browserdb/DbFiles.h            # sizes, checksums and copies of a database's files
  browserdb/DbLayout.h           # the statements made for a database's layout
  browserdb/SqliteDb.h           # SQLite, linked into the engine only
  clean/FileOpsServer.h    # the fallback server's interface and identifiers
  clean/ProgressScope.h    # the one-step progress of a cleanable item
  scandefs/ChildIndex.h       # the index of group children while files are read
  scandefs/DefinitionChecks.h # the depth checks of a parsed file
  scandefs/DefinitionText.h   # a file's bytes widened for the parser, with its lines
  scandefs/FilePrefetch.h  # definition files read ahead of the load
  scan/ListAheadWalk.h     # one scan walk's folder listings ahead
  scandefs/FileScopes.h    # the value scopes of one file's value pass
  scandefs/ValuePass.h     # "value" elements and %NAME% references of a file
  settings/TempBuffer.h
  core/NameMask.h          # name masks and path parts of rules and the guard
  winapp2/Winapp2Costs.h   # the cost class of a winapp2 entry
  winapp2/Winapp2Text.h    # reading and cutting a winapp2.ini file
  winapp2/Winapp2Variables.h  # the %Name% variables of winapp2 rules
  winapp2/Winapp2Detect.h) # the detection cache of a winapp2 load

foreach(dir IN LISTS BROOM_FOLDERS)
  file(GLOB headers RELATIVE ${CMAKE_SOURCE_DIR} CONFIGURE_DEPENDS
       ${CMAKE_SOURCE_DIR}/${dir}/*.h ${CMAKE_SOURCE_DIR}/${dir}/*.inc)
  if(headers AND BROOM_INTERNAL_HEADERS)
    list(REMOVE_ITEM headers ${BROOM_INTERNAL_HEADERS})
  endif()
  if(headers)
    install(FILES ${headers} DESTINATION include/broom/${dir})
  endif()
endforeach()
install(FILES ${BROOM_PUGIXML_DIR}/src/pugixml.hpp ${BROOM_PUGIXML_DIR}/src/pugiconfig.hpp
        DESTINATION include/broom)

install(TARGETS broomcore pugixml_wide EXPORT BroomTargets
        RUNTIME DESTINATION bin
        LIBRARY DESTINATION bin
        ARCHIVE DESTINATION lib)
install(FILES ${BROOM_RUNTIME_DLLS} DESTINATION bin)
# --strip strips only the project's own binaries; Debian's runtime DLLs carry
# debug information too (libstdc++ is 20 MB with it), and so does pugixml.
set(BROOM_STRIPPED)
foreach(dll IN LISTS BROOM_RUNTIME_DLLS)
  get_filename_component(name ${dll} NAME)
  list(APPEND BROOM_STRIPPED bin/${name})
endforeach()
list(APPEND BROOM_STRIPPED lib/$<TARGET_FILE_NAME:pugixml_wide>)
install(CODE "
  if(CMAKE_INSTALL_DO_STRIP)
    foreach(file ${BROOM_STRIPPED})
      execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-debug \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/\${file}\"
                      RESULT_VARIABLE failed)
      if(failed)
        message(FATAL_ERROR \"cannot strip \${file}\")
      endif()
    endforeach()
  endif()")
if(TARGET broom)
  install(TARGETS broom RUNTIME DESTINATION bin)
  if(TARGET broomw)
    install(TARGETS broomw RUNTIME DESTINATION bin)
  endif()
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/defs/ DESTINATION bin/defs)
endif()

# The package, relocatable: it finds everything relative to its own folder.
set(BROOM_CMAKE_DIR lib/cmake/Broom)
install(EXPORT BroomTargets NAMESPACE Broom:: DESTINATION ${BROOM_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/BroomConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/generated/BroomConfig.cmake
                              INSTALL_DESTINATION ${BROOM_CMAKE_DIR})
# Before 1.0 a new minor version may change the exported classes.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/generated/BroomConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/generated/BroomConfig.cmake
              ${CMAKE_BINARY_DIR}/generated/BroomConfigVersion.cmake
        DESTINATION ${BROOM_CMAKE_DIR})
# The toolchain file the package was built with, so that a host can be
# configured from the package alone.
if(CMAKE_TOOLCHAIN_FILE)
  install(FILES ${CMAKE_TOOLCHAIN_FILE} DESTINATION ${BROOM_CMAKE_DIR})
endif()

install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION .)
# The Group Policy template and its English texts, for a policy store or Intune's ADMX import.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/admx/ DESTINATION admx)
install(FILES ${CMAKE_SOURCE_DIR}/docs/host-guide.md DESTINATION docs)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/minimal-host DESTINATION examples)

# Licences: the project's own, when it has one, and those of what ships
# inside the package (pugixml, the MinGW-w64 runtime DLLs, CLI11 and
# nlohmann/json inside the hosts). The packages for users ship this folder
# and name each component in NOTICES.txt (packaging/notices).
file(GLOB BROOM_LICENSE_FILES ${CMAKE_SOURCE_DIR}/LICENSE* ${CMAKE_SOURCE_DIR}/COPYING*)
if(BROOM_LICENSE_FILES)
  install(FILES ${BROOM_LICENSE_FILES} DESTINATION .)
endif()
install(FILES ${BROOM_PUGIXML_DIR}/LICENSE.md DESTINATION licenses RENAME pugixml-LICENSE.md)
foreach(pkg gcc-mingw-w64-base:gcc-mingw-w64-base mingw-w64-common:mingw-w64-common
            libcli11-dev:cli11 nlohmann-json3-dev:nlohmann-json)
  string(REPLACE ":" ";" pkg ${pkg})
  list(GET pkg 0 debian_name)
  list(GET pkg 1 name)
  if(EXISTS /usr/share/doc/${debian_name}/copyright)
    install(FILES /usr/share/doc/${debian_name}/copyright DESTINATION licenses RENAME ${name}-copyright.txt)
  endif()
endforeach()
