#include "features/EigenBorder.h"

namespace mlnn {

template <int kEigenWorld, int kEigenMajor, int kAlignment, bool kPlainMalloc>
void EigenArrays<kEigenWorld, kEigenMajor, kAlignment, kPlainMalloc>::
    define_EIGEN_MAX_ALIGN_BYTES_as_mlnn_does_in_its_CMake_target_and_pkg_config() {}

template struct EigenArrays<EIGEN_WORLD_VERSION, EIGEN_MAJOR_VERSION, EIGEN_DEFAULT_ALIGN_BYTES,
                            EIGEN_MALLOC_ALREADY_ALIGNED != 0>;

}  // namespace mlnn
