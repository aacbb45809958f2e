// The weights of a model as an ONNX file, written and read by libonnx: the peer of IoBench.
#pragma once

#include <memory>
#include <string>

#include "model/MultiLayerNNModel.h"

namespace mlnn::bench {

// Writes all weights and biases as raw initialisers.
// Throws: std::runtime_error.
void writeOnnx(const std::string& name, const MultiLayerNNModel& model);

// Reads the file, and gives what was read to the caller.
// Throws: std::runtime_error.
std::shared_ptr<void> loadOnnx(const std::string& name);

}  // namespace mlnn::bench
