#include "tools/reports/RunReport.h"

#include <ostream>
#include <string>
#include <vector>

#include "inference/Evaluation.h"
#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/reports/Json.h"
#include "tools/reports/Table.h"

namespace mlnn {
namespace {

using Eigen::Index;
using Labels = std::vector<std::string>;

std::string valueText(double value, bool isPosterior) {
  return isPosterior ? fixedNumber(value, 6) : generalNumber(value, 6);
}

std::string labelText(const Labels& labels, Index best) {
  return best < 0 ? "?" : escaped(labels[static_cast<std::size_t>(best)]);
}

// Frames whose class cannot be told. Where there are any, that of the recording cannot either.
std::size_t undecidedFrames(const Eigen::MatrixXf& outputs) {
  std::size_t count = 0;
  for (Index f = 0; f < outputs.cols(); ++f) count += bestClass(outputs.col(f)) < 0 ? 1 : 0;
  return count;
}

void printRecordingClass(const Labels& labels, const Eigen::MatrixXf& posteriors,
                         std::ostream& out) {
  const Index best = recordingClass(posteriors);
  out << "recording: " << labelText(labels, best);
  if (best >= 0) {
    out << ", sum of log posteriors " << fixedNumber(sumOfLogs(posteriors)[best], 3);
  } else {
    out << ", since " << undecidedFrames(posteriors) << " of "
        << counted(static_cast<std::size_t>(posteriors.cols()), "frame")
        << " gave values that are not numbers";
  }
  out << "\n";
}

Json classJson(const Labels& labels, Index best) {
  if (best < 0) return {{"class", nullptr}, {"label", nullptr}};
  return {{"class", best}, {"label", labels[static_cast<std::size_t>(best)]}};
}

}  // namespace

void printDecisions(const OutputSide& network, const Eigen::MatrixXf& outputs, std::ostream& out) {
  const Labels& labels = network.labels;
  Table table({Table::Align::kRight, Table::Align::kLeft, Table::Align::kRight},
              {"frame", "class", network.arePosteriors ? "posterior" : "output"});
  for (Index f = 0; f < outputs.cols(); ++f) {
    const Index best = bestClass(outputs.col(f));
    table.addRow({std::to_string(f), labelText(labels, best),
                  best < 0
                      ? "nan"
                      : valueText(static_cast<double>(outputs(best, f)), network.arePosteriors)});
  }
  table.print(out);
  if (network.arePosteriors) printRecordingClass(labels, outputs, out);
}

nlohmann::ordered_json decisionsJson(const OutputSide& network, const Eigen::MatrixXf& outputs) {
  const Labels& labels = network.labels;
  const char* const valueKey = network.arePosteriors ? "posterior" : "output";
  Json json = {{"frames", Json::array()}};
  for (Index f = 0; f < outputs.cols(); ++f) {
    const Index best = bestClass(outputs.col(f));
    Json frame = classJson(labels, best);
    frame[valueKey] = best < 0 ? Json() : Json(outputs(best, f));
    json["frames"].push_back(std::move(frame));
  }
  if (!network.arePosteriors) return json;
  const Index best = recordingClass(outputs);
  json["recording"] = classJson(labels, best);
  json["recording"]["sum_of_log_posteriors"] = best < 0 ? Json() : Json(sumOfLogs(outputs)[best]);
  return json;
}

}  // namespace mlnn
