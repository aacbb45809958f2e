// What `mlnn run` tells of a recording, as a table and as JSON.
#pragma once

#include <Eigen/Core>
#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace mlnn {

// What the outputs of a network are.
struct OutputSide {
  std::vector<std::string> labels;
  bool arePosteriors;  // they come from a softmax
};

// Prints the best class of each frame, and for a model with softmax that of the recording.
// `outputs` are outputs x frames.
void printDecisions(const OutputSide& network, const Eigen::MatrixXf& outputs, std::ostream& out);

// Returns the same: an array of the frames and, with softmax, what the recording is. A class
// that cannot be told, since an output is not a number, is null.
nlohmann::ordered_json decisionsJson(const OutputSide& network, const Eigen::MatrixXf& outputs);

}  // namespace mlnn
