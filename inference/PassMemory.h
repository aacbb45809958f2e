// PassMemory — what a forward pass keeps from call to call, so that it allocates nothing anew.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <vector>

#include "inference/Threads.h"

namespace mlnn {

struct PassMemory {
  Eigen::VectorXf scratch;   // for the kernels
  Eigen::VectorXf between;   // what goes from layer to layer, read from one half into the other
  Eigen::VectorXf unpacked;  // some rows of weights that do not lie in memory as floats
  Eigen::VectorXf results;   // the outputs of all frames, where they overlap the inputs
  std::vector<PassMemory> further;   // that of each further thread
  std::shared_ptr<Threads> threads;  // which share the work; null for none
};

}  // namespace mlnn
