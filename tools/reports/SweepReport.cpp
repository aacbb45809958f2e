#include "tools/reports/SweepReport.h"

#include <ostream>
#include <string>
#include <utility>

#include "text/Numbers.h"
#include "tools/reports/Json.h"
#include "tools/reports/Table.h"

namespace mlnn {
namespace {

constexpr int kDigits = 3;  // of errors in the table

double shareOf(std::size_t part, std::size_t whole) {
  return static_cast<double>(part) / static_cast<double>(whole);
}

std::string percent(double share, int digits) { return fixedNumber(share * 100, digits) + " %"; }

std::string outOf(std::size_t part, std::size_t whole) {
  return std::to_string(part) + " of " + std::to_string(whole);
}

Table tableOf(const SweepFindings& found) {
  std::vector<std::string> heading = {"bits", "largest error", "mean error",
                                      found.isPosterior ? "posterior" : "output", "same class"};
  if (found.rightRecordings) heading.emplace_back("right");
  heading.emplace_back("");  // the star
  std::vector<Table::Align> columns(heading.size(), Table::Align::kRight);
  Table table(std::move(columns), std::move(heading));
  for (const PrecisionLoss& loss : found.losses) {
    std::vector<std::string> row = {std::to_string(loss.bits),
                                    generalNumber(loss.largestWeightError, kDigits),
                                    generalNumber(loss.meanWeightError, kDigits),
                                    generalNumber(loss.largestOutputDifference, kDigits),
                                    percent(shareOf(loss.sameBestClass, found.frames), 2)};
    if (found.rightRecordings) row.push_back(outOf(loss.rightRecordings, found.recordings));
    row.emplace_back(found.smallestWidth == loss.bits ? "*" : "");
    table.addRow(std::move(row));
  }
  return table;
}

void printFallOfAccuracy(const SweepFindings& found, std::ostream& out) {
  if (!found.accuracyFallsAt) {
    out << "no width decides fewer recordings rightly\n";
    return;
  }
  const auto at = static_cast<std::size_t>(*found.accuracyFallsAt - found.losses.front().bits);
  out << "accuracy falls at " << counted(static_cast<std::size_t>(*found.accuracyFallsAt), "bit")
      << ", to " << outOf(found.losses[at].rightRecordings, found.recordings) << "\n";
}

Json lossJson(const PrecisionLoss& loss, const SweepFindings& found) {
  const double kept = shareOf(loss.sameBestClass, found.frames);
  Json json = {{"bits", loss.bits},
               {"largest_weight_error", loss.largestWeightError},
               {"mean_weight_error", loss.meanWeightError},
               {"largest_output_difference", loss.largestOutputDifference},
               {"same_best_class", loss.sameBestClass},
               {"same_best_class_share", kept},
               {"keeps", kept >= found.keep}};
  if (!found.rightRecordings) return json;
  json["right_recordings"] = loss.rightRecordings;
  json["accuracy"] = shareOf(loss.rightRecordings, found.recordings);
  return json;
}

}  // namespace

void SweepFindings::add(const PrecisionLoss& loss) {
  losses.push_back(loss);
  if (!smallestWidth && shareOf(loss.sameBestClass, frames) >= keep) smallestWidth = loss.bits;
  if (rightRecordings && loss.rightRecordings < *rightRecordings) accuracyFallsAt = loss.bits;
}

void printSweep(const SweepFindings& found, std::ostream& out) {
  tableOf(found).print(out);
  out << counted(found.recordings, "recording") << ", " << counted(found.frames, "frame");
  if (found.rightRecordings) {
    out << "; without reduction " << outOf(*found.rightRecordings, found.recordings) << " right";
  }
  const std::string decisions = generalNumber(found.keep * 100, 6) + " % of the best classes";
  out << (found.smallestWidth ? "\n* the smallest width that keeps " : "\nno width keeps ")
      << decisions << "\n";
  if (found.rightRecordings) printFallOfAccuracy(found, out);
}

nlohmann::ordered_json sweepJson(const SweepFindings& found) {
  Json report = {{"recordings", found.recordings},
                 {"frames", found.frames},
                 {"keep", found.keep},
                 {"smallest_width", nullptr}};
  if (found.smallestWidth) report["smallest_width"] = *found.smallestWidth;
  if (found.rightRecordings) {
    report["right_recordings"] = *found.rightRecordings;
    report["accuracy"] = shareOf(*found.rightRecordings, found.recordings);
    report["accuracy_falls_at"] = found.accuracyFallsAt ? Json(*found.accuracyFallsAt) : Json();
  }
  report["widths"] = Json::array();
  for (const PrecisionLoss& loss : found.losses) {
    report["widths"].push_back(lossJson(loss, found));
  }
  return report;
}

}  // namespace mlnn
