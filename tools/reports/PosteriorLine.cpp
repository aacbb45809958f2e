#include "tools/reports/PosteriorLine.h"

#include <algorithm>
#include <cmath>
#include <ostream>
#include <string>

#include "inference/Evaluation.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr char kTitle[] = "over time: ";
constexpr const char* kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr const char* kCharacters[] = {"_", ".", "-", "=", "+", "*", "#", "@"};
constexpr const char kGreen[] = "\x1b[32m";
constexpr const char kYellow[] = "\x1b[33m";
constexpr const char kNoColour[] = "\x1b[0m";

const char* characterOf(double posterior, CharacterSet set) {
  constexpr double kHighest = static_cast<double>(std::size(kBlocks) - 1);
  const auto index =
      static_cast<std::size_t>(std::lround(kHighest * std::clamp(posterior, 0.0, 1.0)));
  return set == CharacterSet::kUnicode ? kBlocks[index] : kCharacters[index];
}

}  // namespace

void printPosteriorLine(const OutputSide& network, const Eigen::MatrixXf& outputs,
                        const TerminalLook& look, std::ostream& out) {
  if (!network.arePosteriors || outputs.cols() == 0) return;
  const Index best = recordingClass(outputs);
  if (best < 0) return;
  const std::size_t title = std::size(kTitle) - 1;
  const auto room = static_cast<Index>(look.width > title ? look.width - title : 1);
  const Index columns = std::min(room, outputs.cols());
  const char* colour = kNoColour;
  out << kTitle;
  for (Index i = 0; i < columns; ++i) {
    const Index begin = i * outputs.cols() / columns;
    const Index frames = (i + 1) * outputs.cols() / columns - begin;
    const Eigen::VectorXf mean = outputs.middleCols(begin, frames).rowwise().mean();
    const char* const wanted = bestClass(mean) == best ? kGreen : kYellow;
    if (look.hasColours && wanted != colour) out << wanted;
    colour = wanted;
    out << characterOf(static_cast<double>(mean[best]), look.set);
  }
  out << (look.hasColours ? kNoColour : "") << "\n";
}

}  // namespace mlnn
