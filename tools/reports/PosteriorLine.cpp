#include "tools/reports/PosteriorLine.h"

#include <algorithm>
#include <cmath>
#include <ostream>
#include <string>

#include "inference/Evaluation.h"
#include "tools/reports/InkedLine.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr char kTitle[] = "over time: ";
constexpr const char* kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr const char* kCharacters[] = {"_", ".", "-", "=", "+", "*", "#", "@"};

const char* characterOf(double posterior, CharacterSet set) {
  constexpr double kHighest = static_cast<double>(std::size(kBlocks) - 1);
  const auto index =
      static_cast<std::size_t>(std::lround(kHighest * std::clamp(posterior, 0.0, 1.0)));
  return set == CharacterSet::kUnicode ? kBlocks[index] : kCharacters[index];
}

}  // namespace

void printPosteriorLine(const OutputSide& network, const Eigen::MatrixXf& outputs,
                        const TerminalLook& look, std::ostream& out) {
  if (!network.arePosteriors) return;
  printPosteriorLine(network, outputs, recordingClass(outputs), look, out);
}

void printPosteriorLine(const OutputSide& network, const Eigen::MatrixXf& outputs, Index best,
                        const TerminalLook& look, std::ostream& out) {
  if (!network.arePosteriors || outputs.cols() == 0 || best < 0) return;
  const std::size_t title = std::size(kTitle) - 1;
  const auto room = static_cast<Index>(look.width > title ? look.width - title : 1);
  const Index columns = std::min(room, outputs.cols());
  InkedLine line(look.hasColours);
  for (Index i = 0; i < columns; ++i) {
    const Index begin = i * outputs.cols() / columns;
    const Index frames = (i + 1) * outputs.cols() / columns - begin;
    const Eigen::VectorXf mean = outputs.middleCols(begin, frames).rowwise().mean();
    line.add(characterOf(static_cast<double>(mean[best]), look.set),
             bestClass(mean) == best ? Ink::kGreen : Ink::kYellow);
  }
  out << kTitle << line.text() << "\n";
}

void CoarseOutputs::add(const Eigen::MatrixXf& outputs) {
  constexpr Index kMostValues = Index{1} << 22;
  if (columns_.size() == 0) {
    const Index most = std::clamp<Index>(kMostValues / outputs.rows(), 1024, 8192);
    columns_.resize(outputs.rows(), most);
    sum_.setZero(outputs.rows());
  }
  for (Index f = 0; f < outputs.cols(); ++f) {
    sum_ += outputs.col(f);
    if (++summed_ == together_) close();
  }
}

void CoarseOutputs::close() {
  if (count_ == columns_.cols()) halve();
  if (summed_ < together_) return;  // the next column takes more now
  columns_.col(count_++) = sum_ / static_cast<float>(summed_);
  sum_.setZero();
  summed_ = 0;
}

void CoarseOutputs::halve() {
  for (Index c = 0; c < count_ / 2; ++c) {
    const Eigen::VectorXf mean = (columns_.col(2 * c) + columns_.col(2 * c + 1)) / 2;
    columns_.col(c) = mean;
  }
  count_ /= 2;
  together_ *= 2;
}

Eigen::MatrixXf CoarseOutputs::outputs() const {
  Eigen::MatrixXf result(columns_.rows(), count_ + (summed_ > 0 ? 1 : 0));
  result.leftCols(count_) = columns_.leftCols(count_);
  if (summed_ > 0) result.col(count_) = sum_ / static_cast<float>(summed_);
  return result;
}

}  // namespace mlnn
