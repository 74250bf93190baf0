# Cross-compiling for 64-bit Windows with Debian's mingw-w64 (the POSIX
# threading flavour, which C++ std::thread and std::mutex need).
#   cmake -S . -B build-win -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake
# Libraries built for Windows outside the system (Tcl, GoogleTest) are found
# under the prefixes listed in SF_WIN_DEPS.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(SF_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${SF_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${SF_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${SF_MINGW_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${SF_MINGW_TRIPLE} ${SF_WIN_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test programs (and GoogleTest's death tests) run under Wine on the build
# machine.
find_program(SF_WINE NAMES wine wine64)
if(SF_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${SF_WINE})
endif()
