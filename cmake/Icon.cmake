# The application icon: packaging/broom.svg drawn at each size by rsvg-convert
# and gathered into generated/broom.ico by icotool (the 256 px image kept as
# PNG, as Windows reads it since Vista). Programs take it as their first icon
# resource (ID 1), which Explorer, the taskbar and the packages show.
find_program(BROOM_RSVG_CONVERT rsvg-convert)
find_program(BROOM_ICOTOOL icotool)
if(NOT BROOM_RSVG_CONVERT OR NOT BROOM_ICOTOOL)
  message(FATAL_ERROR "rsvg-convert or icotool not found: run scripts/setup.sh (librsvg2-bin, icoutils)")
endif()

set(BROOM_ICON_SVG ${CMAKE_SOURCE_DIR}/packaging/broom.svg)
set(BROOM_ICON ${CMAKE_BINARY_DIR}/generated/broom.ico)
set(icon_dir ${CMAKE_BINARY_DIR}/generated/icon)
set(icon_steps)
set(icon_bitmaps)
foreach(size 16 24 32 48 64 256)
  set(png ${icon_dir}/broom-${size}.png)
  list(APPEND icon_steps COMMAND ${BROOM_RSVG_CONVERT} -w ${size} -h ${size} -o ${png} ${BROOM_ICON_SVG})
  if(size EQUAL 256)
    set(icon_large ${png})
  else()
    list(APPEND icon_bitmaps ${png})
  endif()
endforeach()
add_custom_command(OUTPUT ${BROOM_ICON}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${icon_dir}
  ${icon_steps}
  COMMAND ${BROOM_ICOTOOL} -c -o ${BROOM_ICON} ${icon_bitmaps} -r ${icon_large}
  DEPENDS ${BROOM_ICON_SVG}
  COMMENT "Drawing broom.ico from packaging/broom.svg")
add_custom_target(broom_icon DEPENDS ${BROOM_ICON})

set(BROOM_ICON_RC ${CMAKE_BINARY_DIR}/generated/app-icon.rc)
file(CONFIGURE OUTPUT ${BROOM_ICON_RC} CONTENT "// The application icon, drawn from packaging/broom.svg\n1 ICON \"${BROOM_ICON}\"\n")

# broom_app_icon(TARGET): gives a program the application icon.
function(broom_app_icon target)
  target_sources(${target} PRIVATE ${BROOM_ICON_RC})
  set_source_files_properties(${BROOM_ICON_RC} PROPERTIES OBJECT_DEPENDS ${BROOM_ICON})
  add_dependencies(${target} broom_icon)
endfunction()
