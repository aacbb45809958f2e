#include "tools/reports/RunReport.h"

#include <ostream>
#include <string>
#include <vector>

#include "inference/Evaluation.h"
#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/reports/Json.h"

namespace mlnn {
namespace {

using Eigen::Index;
using Labels = std::vector<std::string>;
using Cells = std::vector<std::string>;

const std::vector<Table::Align> kColumns = {Table::Align::kRight, Table::Align::kLeft,
                                            Table::Align::kRight};

constexpr char kNoNumber[] = "nan";
constexpr char kLongestOutput[] = "-1.23457e-38";

Cells headingOf(const OutputSide& network) {
  return {"frame", "class", network.arePosteriors ? "posterior" : "output"};
}

std::string valueText(double value, bool isPosterior) {
  return isPosterior ? fixedNumber(value, 6) : generalNumber(value, 6);
}

std::string labelText(const Labels& labels, Index best) {
  return best < 0 ? "?" : escaped(labels[static_cast<std::size_t>(best)]);
}

Cells rowOf(const OutputSide& network, uint64_t frame, const FrameDecision& decision) {
  return {std::to_string(frame), labelText(network.labels, decision.best),
          decision.best < 0
              ? kNoNumber
              : valueText(static_cast<double>(decision.value), network.arePosteriors)};
}

void printRecordingClass(const Labels& labels, const Eigen::VectorXd& sums, uint64_t undecided,
                         uint64_t frames, std::ostream& out) {
  const Index best = largestSum(sums);
  out << "recording: " << labelText(labels, best);
  if (best >= 0) {
    out << ", sum of log posteriors " << fixedNumber(sums[best], 3);
  } else {
    out << ", since " << undecided << " of " << counted(static_cast<std::size_t>(frames), "frame")
        << " gave values that are not numbers";
  }
  out << "\n";
}

Json classJson(const Labels& labels, Index best) {
  if (best < 0) return {{"class", nullptr}, {"label", nullptr}};
  return {{"class", best}, {"label", labels[static_cast<std::size_t>(best)]}};
}

}  // namespace

void printDecisions(const OutputSide& network, const RecordingDecisions& decisions,
                    std::ostream& out) {
  TableColumns columns(kColumns);
  columns.fit(headingOf(network));
  decisions.forEach([&](uint64_t frame, const FrameDecision& decision) {
    columns.fit(rowOf(network, frame, decision));
  });
  columns.print(headingOf(network), out);
  decisions.forEach([&](uint64_t frame, const FrameDecision& decision) {
    columns.print(rowOf(network, frame, decision), out);
  });
  if (!network.arePosteriors) return;
  printRecordingClass(network.labels, decisions.sums(), decisions.undecided(), decisions.frames(),
                      out);
}

ArrivingDecisions::ArrivingDecisions(const OutputSide& network, std::ostream& out)
    : network_(network), out_(out), columns_(kColumns) {
  columns_.fit(headingOf(network));
  for (const std::string& label : network.labels) columns_.fit({"", escaped(label), ""});
  if (!network.arePosteriors) columns_.fit({"", "", kLongestOutput});
  columns_.print(headingOf(network), out_);
}

void ArrivingDecisions::add(const Eigen::MatrixXf& outputs) {
  for (Index f = 0; f < outputs.cols(); ++f) {
    const Index best = bestClass(outputs.col(f));
    undecided_ += best < 0 ? 1 : 0;
    const FrameDecision decision = {static_cast<int32_t>(best), best < 0 ? 0.0f : outputs(best, f)};
    columns_.print(rowOf(network_, frames_++, decision), out_);
  }
  if (network_.arePosteriors) addSumOfLogs(outputs, sums_);
  out_.flush();
}

void ArrivingDecisions::finish() {
  if (!network_.arePosteriors) return;
  printRecordingClass(network_.labels, sums_, undecided_, frames_, out_);
}

void printDecisions(const OutputSide& network, const RecordingDecisions& decisions,
                    JsonPrinter& out) {
  const Labels& labels = network.labels;
  const char* const valueKey = network.arePosteriors ? "posterior" : "output";
  out.key("frames");
  out.beginArray();
  decisions.forEach([&](uint64_t /*frame*/, const FrameDecision& decision) {
    Json entry = classJson(labels, decision.best);
    entry[valueKey] = decision.best < 0 ? Json() : Json(decision.value);
    out.entry(entry);
  });
  out.end();
  if (!network.arePosteriors) return;
  const Index best = largestSum(decisions.sums());
  Json recording = classJson(labels, best);
  recording["sum_of_log_posteriors"] = best < 0 ? Json() : Json(decisions.sums()[best]);
  out.member("recording", recording);
}

}  // namespace mlnn
