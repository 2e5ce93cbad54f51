# broom_message_table(TARGET MC_FILE): compiles a message file with windmc
# into a message table resource of the target and a header of its message
# identifiers, which the target's sources include by the file's name.
function(broom_message_table target mc)
  string(REGEX REPLACE "windres$" "windmc" windmc_name "${CMAKE_RC_COMPILER}")
  find_program(BROOM_WINDMC NAMES ${windmc_name})
  if(NOT BROOM_WINDMC)
    message(FATAL_ERROR "${windmc_name} not found: run scripts/setup.sh (binutils-mingw-w64)")
  endif()
  get_filename_component(name ${mc} NAME_WE)
  set(out ${CMAKE_BINARY_DIR}/generated/${target}-messages)
  add_custom_command(
    OUTPUT ${out}/${name}.h ${out}/${name}.rc ${out}/MSG00409.bin
    COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
    COMMAND ${BROOM_WINDMC} -U -h ${out} -r ${out} ${mc}
    DEPENDS ${mc}
    COMMENT "Compiling the message table ${name}.mc")
  set_source_files_properties(${out}/${name}.rc PROPERTIES OBJECT_DEPENDS ${out}/MSG00409.bin)
  target_sources(${target} PRIVATE ${out}/${name}.rc ${out}/${name}.h)
  # The .rc names its .bin without a folder, and the sources include the header by name.
  target_include_directories(${target} PRIVATE ${out})
endfunction()
