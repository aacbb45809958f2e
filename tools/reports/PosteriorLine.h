// PosteriorLine — the posteriors of a recording's class over time, on one line of a terminal.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <iosfwd>

#include "tools/reports/RunReport.h"
#include "tools/reports/Terminal.h"

namespace mlnn {

// Prints "over time: " and a character for each frame, the higher the larger the posterior of the
// class that the recording is decided to be. Where there are more frames than the terminal is
// wide, a character shows the mean of some. In colours, frames for which that class is the best are
// green, others yellow.
// Prints nothing where there is no decision, or where the outputs are no posteriors.
void printPosteriorLine(const OutputSide& network, const Eigen::MatrixXf& outputs,
                        const TerminalLook& look, std::ostream& out);

// The same for a class that was decided already, -1 for none.
void printPosteriorLine(const OutputSide& network, const Eigen::MatrixXf& outputs,
                        Eigen::Index best, const TerminalLook& look, std::ostream& out);

// The outputs of a recording of any length in little memory: as they are while there are some
// thousand frames, else the means of two at a time, of four and so on.
class CoarseOutputs {
 public:
  // Takes outputs x frames, of which there are always as many outputs.
  void add(const Eigen::MatrixXf& outputs);

  // Returns outputs x frames, or means of as many frames each but for the last column.
  Eigen::MatrixXf outputs() const;

 private:
  void close();
  void halve();

  Eigen::MatrixXf columns_;
  Eigen::Index count_ = 0;  // of these columns that are filled
  Eigen::Index together_ = 1;
  Eigen::VectorXf sum_;  // of the frames for the next column
  Eigen::Index summed_ = 0;
};

}  // namespace mlnn
