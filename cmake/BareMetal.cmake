# The library for a device without a heap, threads and streams: the sources behind mlnn::DevicePass,
# and messages that need none of those. docs/small-devices.md tells how to build with it.
add_library(mlnn STATIC
  features/DbnFeatureDescription.cpp
  features/EigenBorder.cpp
  features/FrameRing.cpp
  layers/ActFn.cpp
  layers/CodedWeights.cpp
  layers/Crc32c.cpp
  layers/MessageText.cpp
  layers/MessagesOfOneThread.cpp
  layers/NNLayerRecord.cpp
  layers/RowCodes.cpp
  model/ImageReader.cpp
  inference/DevicePass.cpp
  inference/DevicePassIntegers.cpp
  inference/kernels/Kernels.cpp
  inference/kernels/UnfusedKernels.cpp)
add_library(mlnn::mlnn ALIAS mlnn)
target_compile_features(mlnn PUBLIC cxx_std_17)
target_include_directories(mlnn PUBLIC ${PROJECT_SOURCE_DIR})
target_compile_definitions(mlnn PRIVATE EIGEN_MAX_ALIGN_BYTES=64)
target_compile_options(mlnn PRIVATE ${MLNN_COMPILE_OPTIONS}
  -Wno-attributes  # that a variable stays where sections are collected, which not every target knows
  -Os -ffunction-sections -fdata-sections -fno-exceptions -fno-rtti -fno-threadsafe-statics)

target_include_directories(mlnn SYSTEM PRIVATE ${MLNN_HIGHWAY_INCLUDE_DIR} ${EIGEN3_INCLUDE_DIRS})
