# cmake --install: the library with its header, the client library, the
# programs, and what finds them: a pkg-config file and a CMake package.
include(CMakePackageConfigHelpers)

set(zu_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ZuHelper)
set(zu_libraries ZuHelper)
if(TARGET ZuClient)
  list(APPEND zu_libraries ZuClient)
endif()
install(TARGETS ${zu_libraries} EXPORT ZuHelperTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
foreach(tool zusign zuctl)
  if(TARGET ${tool})
    install(TARGETS ${tool} DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

install(EXPORT ZuHelperTargets NAMESPACE ZuHelper::
  DESTINATION ${zu_package_dir})
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/ZuHelperConfig.cmake.in
  ${PROJECT_BINARY_DIR}/generated/ZuHelperConfig.cmake
  INSTALL_DESTINATION ${zu_package_dir}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/generated/ZuHelperConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/generated/ZuHelperConfig.cmake
  ${PROJECT_BINARY_DIR}/generated/ZuHelperConfigVersion.cmake
  DESTINATION ${zu_package_dir})

# The prefix may change at install time or later, so the file finds its own.
set(zu_pc_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH zu_pc_to_prefix ${zu_pc_dir} ${CMAKE_INSTALL_PREFIX})
file(RELATIVE_PATH zu_pc_libdir
  ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH zu_pc_includedir
  ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
string(REGEX REPLACE "/$" "" zu_pc_to_prefix "${zu_pc_to_prefix}")
function(zu_install_pkgconfig zu_pc_library zu_pc_description zu_pc_runtime)
  string(TOLOWER ${zu_pc_library} name)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in
    ${PROJECT_BINARY_DIR}/generated/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/generated/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
zu_install_pkgconfig(ZuHelper "${PROJECT_DESCRIPTION}" "")
if(TARGET ZuClient)
  # An archive of C++ code: programs in C link its run-time themselves.
  list(TRANSFORM CMAKE_CXX_IMPLICIT_LINK_LIBRARIES PREPEND "-l"
    OUTPUT_VARIABLE zu_runtime)
  list(FILTER zu_runtime INCLUDE REGEX "^-l(std)?c\\+\\+$")
  zu_install_pkgconfig(ZuClient "Client of the server in libZuHelper"
    " ${zu_runtime}")
endif()
