# The MinGW runtime (libstdc++, libgcc, winpthread) is used as DLLs so that
# broomcore.dll and its host share one C++ runtime: exceptions and standard
# strings then cross the library boundary safely. Copy them beside the
# programs at configure time.
set(BROOM_RUNTIME_DLLS)
foreach(name libstdc++-6.dll libgcc_s_seh-1.dll libgcc_s_dw2-1.dll libwinpthread-1.dll)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${name}
                  OUTPUT_VARIABLE found OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT IS_ABSOLUTE "${found}")
    # winpthread lives with the target's system libraries, not with gcc
    get_filename_component(sysroot_lib "/usr/${BROOM_TRIPLE}/lib/${name}" ABSOLUTE)
    if(EXISTS ${sysroot_lib})
      set(found ${sysroot_lib})
    endif()
  endif()
  if(IS_ABSOLUTE "${found}" AND EXISTS "${found}")
    list(APPEND BROOM_RUNTIME_DLLS ${found})
  endif()
endforeach()
if(NOT BROOM_RUNTIME_DLLS MATCHES "libstdc")
  message(FATAL_ERROR "the MinGW C++ runtime DLLs were not found next to ${CMAKE_CXX_COMPILER}")
endif()
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
file(COPY ${BROOM_RUNTIME_DLLS} DESTINATION ${CMAKE_BINARY_DIR}/bin)
