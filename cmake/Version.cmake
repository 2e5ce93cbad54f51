# The version lives in one place, project(Broom VERSION ...). From there it
# reaches the version resources below, broom --version (a definition in
# console/CMakeLists.txt), the CMake package's version file (Install.cmake) and
# the packages (scripts/package.sh). The resources' company is BROOM_PUBLISHER.

# broom_version_resource(TARGET DESCRIPTION): a VERSIONINFO resource for an
# executable or DLL target, compiled by windres.
function(broom_version_resource target description)
  get_target_property(type ${target} TYPE)
  get_target_property(name ${target} OUTPUT_NAME)
  if(NOT name)
    set(name ${target})
  endif()
  if(type STREQUAL "SHARED_LIBRARY")
    set(BROOM_RC_TYPE VFT_DLL)
    set(BROOM_RC_FILE ${name}.dll)
  else()
    set(BROOM_RC_TYPE VFT_APP)
    set(BROOM_RC_FILE ${name}.exe)
  endif()
  set(BROOM_RC_NAME ${name})
  set(BROOM_RC_DESCRIPTION "${description}")
  set(rc ${CMAKE_BINARY_DIR}/generated/${target}-version.rc)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/VersionInfo.rc.in ${rc} @ONLY)
  target_sources(${target} PRIVATE ${rc})
endfunction()
