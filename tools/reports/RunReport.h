// What `mlnn run` tells of a recording, as a table and as JSON.
#pragma once

#include <Eigen/Core>
#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tools/reports/RecordingDecisions.h"
#include "tools/reports/Table.h"

namespace mlnn {

class JsonPrinter;

// What the outputs of a network are.
struct OutputSide {
  std::vector<std::string> labels;
  bool arePosteriors;  // they come from a softmax
};

// Prints the best class of each frame, and for a model with softmax that of the recording.
void printDecisions(const OutputSide& network, const RecordingDecisions& decisions,
                    std::ostream& out);

// Prints the same while frames come, line by line. Columns have room for whatever may stand in
// them, so that they can be wider than those of printDecisions.
class ArrivingDecisions {
 public:
  // Prints the heading. Lifetime: both must outlive the object.
  ArrivingDecisions(const OutputSide& network, std::ostream& out);

  // Prints a line for each frame of outputs x frames, and hands them on.
  void add(const Eigen::MatrixXf& outputs);

  // Prints the class of the recording.
  void finish();

  const Eigen::VectorXd& sums() const { return sums_; }  // of log posteriors

 private:
  const OutputSide& network_;
  std::ostream& out_;
  TableColumns columns_;
  uint64_t frames_ = 0;
  uint64_t undecided_ = 0;
  Eigen::VectorXd sums_;
};

// Prints the same as members of an object that has begun: an array of the frames and, with softmax,
// what the recording is. A class that cannot be told, since an output is not a number, is null.
void printDecisions(const OutputSide& network, const RecordingDecisions& decisions,
                    JsonPrinter& out);

}  // namespace mlnn
