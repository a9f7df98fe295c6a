# Cross-builds one architecture for macOS with zig's clang and linker, which
# bring the C library's headers, its stub and a C++ library that is linked in.
# scripts/build-macos sets
#
#   ZU_ZIG           the zig program
#   ZU_SDK           macOS's SDK, as directories Frameworks, include and lib
#   ZU_ARCHITECTURE  x86_64 or aarch64
set(zu_settings ZU_ZIG ZU_SDK ZU_ARCHITECTURE)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ${zu_settings})
foreach(zu_setting IN LISTS zu_settings)
  if(NOT ${zu_setting})
    message(FATAL_ERROR "toolchain-macos-zig.cmake: ${zu_setting} is not set")
  endif()
endforeach()

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${ZU_ARCHITECTURE})
set(zu_target -target ${ZU_ARCHITECTURE}-macos.11.0)
set(CMAKE_C_COMPILER ${ZU_ZIG} cc ${zu_target})
set(CMAKE_CXX_COMPILER ${ZU_ZIG} c++ ${zu_target})
set(CMAKE_OBJCXX_COMPILER ${ZU_ZIG} c++ ${zu_target})
find_program(CMAKE_AR llvm-ar REQUIRED)
find_program(CMAKE_RANLIB llvm-ranlib REQUIRED)
find_program(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool REQUIRED)

foreach(zu_language C CXX OBJCXX)
  # The SDK behind zig's own headers, and as system headers: their warnings are
  # none of ours.
  string(CONCAT CMAKE_${zu_language}_FLAGS_INIT "-fblocks "
    "-iframework ${ZU_SDK}/Frameworks "
    "-iframework ${CMAKE_CURRENT_LIST_DIR}/macos "
    "-idirafter ${ZU_SDK}/include")
  # zig's linker knows no list of exported names, so visibility decides alone.
  set(CMAKE_${zu_language}_VISIBILITY_PRESET hidden)
  # CMake's form of this, two arguments behind -Xlinker, is too much for zig.
  set(CMAKE_${zu_language}_LINK_LIBRARY_USING_WHOLE_ARCHIVE
      "-Wl,-force_load,<LIB_ITEM>")
  set(CMAKE_${zu_language}_LINK_LIBRARY_USING_WHOLE_ARCHIVE_SUPPORTED TRUE)
endforeach()
foreach(zu_kind SHARED EXE)
  string(CONCAT CMAKE_${zu_kind}_LINKER_FLAGS_INIT
    "-F${ZU_SDK}/Frameworks -F${CMAKE_CURRENT_LIST_DIR}/macos "
    "-L${ZU_SDK}/lib -L${CMAKE_CURRENT_LIST_DIR}/macos -lallocation")
endforeach()
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(CMAKE_FIND_ROOT_PATH ${ZU_SDK})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
