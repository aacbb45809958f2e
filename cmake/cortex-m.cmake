# Toolchain file for ARM's Cortex-M by the bare-metal compiler:
#   cmake -S . -B build -DCMAKE_TOOLCHAIN_FILE=cmake/cortex-m.cmake -DMLNN_CORTEX_M=m4 -DMLNN_BARE_METAL=ON
set(MLNN_CORTEX_M m4 CACHE STRING "Which: m4 (with floats in hardware) or m0plus")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MLNN_CORTEX_M)

set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-none-eabi-gcc)
set(CMAKE_CXX_COMPILER arm-none-eabi-g++)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)  # a program would need the board's linker script

set(flags_of_m4 "-mcpu=cortex-m4 -mthumb -mfloat-abi=hard -mfpu=fpv4-sp-d16")
set(flags_of_m0plus "-mcpu=cortex-m0plus -mthumb")
if(NOT DEFINED flags_of_${MLNN_CORTEX_M})
  message(FATAL_ERROR "MLNN_CORTEX_M: expected m4 or m0plus, but found '${MLNN_CORTEX_M}'")
endif()
set(CMAKE_C_FLAGS_INIT "${flags_of_${MLNN_CORTEX_M}}")
set(CMAKE_CXX_FLAGS_INIT "${flags_of_${MLNN_CORTEX_M}}")
