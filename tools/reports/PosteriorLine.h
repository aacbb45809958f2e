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

}  // namespace mlnn
