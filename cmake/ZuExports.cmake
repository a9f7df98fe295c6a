# exports.txt is the one list of exported names. From it come the linker's
# lists of both systems.
set(ZU_EXPORTS_FILE ${PROJECT_SOURCE_DIR}/exports.txt)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${ZU_EXPORTS_FILE})
file(STRINGS ${ZU_EXPORTS_FILE} zu_exports REGEX "^[A-Za-z_]")

set(zu_version_script "{\n  global:\n")
set(zu_export_list "")
foreach(zu_name IN LISTS zu_exports)
  string(APPEND zu_version_script "    ${zu_name};\n")
  string(APPEND zu_export_list "_${zu_name}\n")
endforeach()
string(APPEND zu_version_script "  local:\n    *;\n};\n")
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/generated/exports.map
     CONTENT "${zu_version_script}" @ONLY)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/generated/exports.list
     CONTENT "${zu_export_list}" @ONLY)

# Makes `target` export the listed names and nothing else.
function(zu_link_exports target)
  if(ZU_OS STREQUAL "linux")
    set(list_file ${PROJECT_BINARY_DIR}/generated/exports.map)
    target_link_options(${target} PRIVATE
      -Wl,--version-script=${list_file} -Wl,-Bsymbolic-functions
      -Wl,-z,relro,-z,now)
    if(NOT ZU_SANITIZE)  # Its run-time library comes with the program.
      target_link_options(${target} PRIVATE -Wl,--no-undefined)
    endif()
  else()
    set(list_file ${PROJECT_BINARY_DIR}/generated/exports.list)
    target_link_options(${target} PRIVATE
      -Wl,-exported_symbols_list,${list_file})
  endif()
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${list_file})
endfunction()
