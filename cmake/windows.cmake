# For 64-bit Windows by mingw-w64, whose programs wine runs:
#   cmake --preset windows      or      cmake --toolchain cmake/windows.cmake
# Programs need no DLL of the compiler's.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -static)
find_program(MLNN_WINE NAMES wine64 wine PATHS /usr/lib/wine)  # without the remarks of the command that chooses
set(CMAKE_CROSSCOMPILING_EMULATOR ${MLNN_WINE})
# Libraries that are headers alone are those of this machine: cmake/Highway.cmake makes room for them.
list(APPEND CMAKE_PREFIX_PATH /usr)
set(CMAKE_FIND_LIBRARY_SUFFIXES .a)
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)  # starting wine takes a while
