# How every target of this project is compiled.
include(CheckCXXSourceCompiles)

# The tree stays free of these under g++ 12 and clang 14.
set(MLNN_WARNINGS -Wall -Wextra -Wpedantic -Wconversion -Wshadow)

# One model gives the same bits on every machine: each operation is rounded once, to the type
# that the source names. So a * b + c is not fused behind the source's back, and 32-bit x86
# does not compute in the 80-bit registers of its x87 unit.
set(MLNN_FLOAT_OPTIONS -ffp-contract=off)
check_cxx_source_compiles("
#ifndef __i386__
#error not 32-bit x86
#endif
int main() { return 0; }" MLNN_IS_I386)
if(MLNN_IS_I386)
  list(APPEND MLNN_FLOAT_OPTIONS -msse2 -mfpmath=sse)
endif()

# On 64-bit Windows the stack is aligned to 16 bytes, and g++ takes its vectors there for aligned to
# their size. Moves that need no alignment cost nothing where there is one.
if(MINGW AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND MLNN_FLOAT_OPTIONS -Wa,-muse-unaligned-vector-move)
endif()

# For Windows, g++ expects of an inline function that it calls the registers that its own translation leaves alone,
# but the linker may take that of another object, compiled with other options, which does not. A program may meet
# this with what it shares with the library too, so the option is a part of the interface.
set(MLNN_CALL_OPTIONS)
if(MINGW AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(MLNN_CALL_OPTIONS -fno-ipa-ra)
endif()

set(MLNN_COMPILE_OPTIONS ${MLNN_WARNINGS} ${MLNN_FLOAT_OPTIONS} ${MLNN_CALL_OPTIONS})

# Not every standard library converts floating-point numbers from and to text.
check_cxx_source_compiles("
#include <charconv>
int main() {
  float value = 0;
  char text[8] = {'1'};
  std::from_chars(text, text + 1, value);
  return std::to_chars(text, text + 8, double{value}, std::chars_format::general, 3).ptr != text + 1;
}" MLNN_HAS_FLOAT_CHARCONV)
if(MLNN_HAS_FLOAT_CHARCONV)
  set(MLNN_DECIMAL_CONVERSION DecimalConversion)
else()
  set(MLNN_DECIMAL_CONVERSION DecimalConversionByHand)
endif()

# Reads the headers that nearly every source of a target includes once for all of them; that takes half
# of the time of most. -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON does without and finds an include that is missing,
# as check-all's abi does; so does whoever builds the library as a part of another project.
function(mlnn_precompile target)
  if(PROJECT_IS_TOP_LEVEL)
    target_precompile_headers(${target} PRIVATE <Eigen/Core> <string> <vector> ${ARGN})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
      # Without the time in them, a compiler cache sees that two of the same headers are the same.
      target_compile_options(${target} PRIVATE "SHELL:-Xclang -fno-pch-timestamp")
    endif()
  endif()
endfunction()

# Targets whose sources are compiled some at a time: a build of everything takes less time, since what they have
# in common is compiled once. Not those that are named behind the target: they have names to themselves that
# others have too, or include themselves.
set(MLNN_IN_BATCHES "" CACHE STRING "Targets to compile in batches, for builds that compile all of them once")
function(mlnn_compile_in_batches target)
  if("${target}" IN_LIST MLNN_IN_BATCHES)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
    set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
  endif()
endfunction()
