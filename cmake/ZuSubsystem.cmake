# zu_subsystem(<name> [SOURCES file...] [PLATFORM stem...] [TESTS file...])
#
# Adds one folder's sources to the library, together with the system's side of
# the seam headers that it uses (a stem that this system lacks stops the
# configure step), and registers the unit tests that stand beside them. Paths
# are relative to the calling folder.
function(zu_subsystem name)
  cmake_parse_arguments(arg "" "" "SOURCES;PLATFORM;TESTS" ${ARGN})
  foreach(file IN LISTS arg_SOURCES)
    list(APPEND sources ${CMAKE_CURRENT_SOURCE_DIR}/${file})
  endforeach()
  foreach(stem IN LISTS arg_PLATFORM)
    set(base ${PROJECT_SOURCE_DIR}/src/platform/${ZU_OS}/${stem})
    if(EXISTS ${base}.cc)
      list(APPEND sources ${base}.cc)
    elseif(EXISTS ${base}.mm)
      list(APPEND sources ${base}.mm)
    else()
      message(FATAL_ERROR "${name}: ${ZU_OS} has no ${stem}")
    endif()
  endforeach()
  target_sources(zu_core PRIVATE ${sources})
  foreach(file IN LISTS arg_TESTS)
    zu_unit_test(${CMAKE_CURRENT_SOURCE_DIR}/${file})
  endforeach()
endfunction()

# zu_unit_test(<file> [library...]): one test program over the core's own
# (hidden) functions, with its cases in CTest.
function(zu_unit_test file)
  if(NOT ZU_BUILD_TESTS)
    return()
  endif()
  cmake_path(GET file STEM stem)
  add_executable(${stem} ${file})
  target_link_libraries(${stem} PRIVATE
    zu_core zu_options GTest::gmock GTest::gtest_main ${ARGN})
  gtest_discover_tests(${stem} TEST_PREFIX "${stem}/" NO_PRETTY_VALUES
    DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${ZU_TEST_TIMEOUT_s})
endfunction()
