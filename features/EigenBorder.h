// EigenBorder — keeps a program that allocates Eigen's arrays in another way than the library from
// being linked with it.
//
// Library and program hand arrays to each other, and one frees what the other allocated. How Eigen
// allocates follows from its release, and from where arrays begin: at EIGEN_MAX_ALIGN_BYTES, which
// the CMake target mlnn::mlnn and `pkg-config --cflags mlnn` define. With it no other flag matters,
// neither -march=native nor a sanitizer. A program that defines another value, or none, asks for a
// symbol that the library does not have; its name says what to do.
#pragma once

#include <Eigen/Core>

#include "features/Export.h"

namespace mlnn {

// One way of allocating arrays: Eigen's release, the bytes that an array's address is a multiple
// of, and whether malloc's result is used as it is. The library defines the function, which does
// nothing, for its own way.
template <int kEigenWorld, int kEigenMajor, int kAlignment, bool kPlainMalloc>
struct MLNN_EXPORT EigenArrays {
  // Does nothing.
  static void define_EIGEN_MAX_ALIGN_BYTES_as_mlnn_does_in_its_CMake_target_and_pkg_config();
};

// The way of whoever includes this.
using EigenArraysHere = EigenArrays<EIGEN_WORLD_VERSION, EIGEN_MAJOR_VERSION,
                                    EIGEN_DEFAULT_ALIGN_BYTES, EIGEN_MALLOC_ALREADY_ALIGNED != 0>;

#if defined(__GNUC__) && !defined(__wasm__)
#if defined(__has_attribute) && __has_attribute(retain) && !defined(_WIN32)
#define MLNN_KEPT __attribute__((used, retain))  // by the linker too, where it collects sections
#else
#define MLNN_KEPT __attribute__((used))
#endif
namespace {
MLNN_KEPT void (*const kEigenBorder)() =
    &EigenArraysHere::define_EIGEN_MAX_ALIGN_BYTES_as_mlnn_does_in_its_CMake_target_and_pkg_config;
}  // namespace
#undef MLNN_KEPT
#endif

}  // namespace mlnn
