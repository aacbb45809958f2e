#include "tools/reports/QuantizationReport.h"

#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "text/Numbers.h"
#include "tools/reports/Json.h"
#include "tools/reports/Table.h"

namespace mlnn {
namespace {

constexpr int kDigits = 3;  // of differences
constexpr auto kLeft = Table::Align::kLeft;
constexpr auto kRight = Table::Align::kRight;

std::string percent(double share) { return fixedNumber(share * 100, 2) + " %"; }

std::string outOf(std::size_t part, std::size_t whole) {
  return std::to_string(part) + " of " + std::to_string(whole);
}

std::string keptText(double keep) { return generalNumber(keep * 100, 6) + " % of the decisions"; }

Table stagesOf(const QuantizationLoss& loss) {
  Table table({kLeft, kRight, kRight, kRight}, {"stage", "values", "largest", "mean"});
  for (const StageLoss& stage : loss.stages) {
    table.addRow({stage.stage, std::to_string(stage.values), generalNumber(stage.largest, kDigits),
                  generalNumber(stage.mean, kDigits)});
  }
  return table;
}

Table widthsOf(const QuantizationFindings& found) {
  std::vector<std::string> heading = {"bits", "largest", "mean", "same class", "in integers"};
  if (found.rightRecordings) heading.insert(heading.end(), {"right", "in integers"});
  heading.insert(heading.end(), {"image bytes", ""});
  std::vector<Table::Align> columns(heading.size(), kRight);
  Table table(std::move(columns), std::move(heading));
  const std::optional<int> smallest = found.smallestWidth();
  for (const QuantizationLoss& loss : found.losses) {
    const StageLoss& outputs = loss.stages.back();
    std::vector<std::string> row = {
        std::to_string(loss.bits), generalNumber(outputs.largest, kDigits),
        generalNumber(outputs.mean, kDigits), percent(found.sameBestClassShare(loss.floats)),
        percent(found.sameBestClassShare(loss.integers))};
    if (found.rightRecordings) {
      row.push_back(outOf(loss.floats.rightRecordings, found.recordings));
      row.push_back(outOf(loss.integers.rightRecordings, found.recordings));
    }
    row.push_back(std::to_string(loss.imageBytes));
    row.emplace_back(smallest == loss.bits ? "*" : "");
    table.addRow(std::move(row));
  }
  return table;
}

Table meansOf(const QuantizationFindings& found) {
  std::vector<std::string> heading = {"mean after"};
  for (const QuantizationLoss& loss : found.losses)
    heading.push_back(counted(static_cast<std::size_t>(loss.bits), "bit"));
  std::vector<Table::Align> columns(heading.size(), kRight);
  columns.front() = kLeft;
  Table table(std::move(columns), std::move(heading));
  for (std::size_t i = 0; i < found.losses.front().stages.size(); ++i) {
    std::vector<std::string> row = {found.losses.front().stages[i].stage};
    for (const QuantizationLoss& loss : found.losses) {
      row.push_back(generalNumber(loss.stages[i].mean, kDigits));
    }
    table.addRow(std::move(row));
  }
  return table;
}

Json decisionsJson(const DecisionLoss& loss, const QuantizationFindings& found) {
  Json json = {{"same_best_class", loss.sameBestClass},
               {"same_best_class_share", found.sameBestClassShare(loss)}};
  if (found.rightRecordings) {
    json["right_recordings"] = loss.rightRecordings;
    json["accuracy"] = found.accuracy(loss.rightRecordings);
  }
  return json;
}

Json lossJson(const QuantizationLoss& loss, const QuantizationFindings& found) {
  Json json = {{"bits", loss.bits},
               {"floats", decisionsJson(loss.floats, found)},
               {"integers", decisionsJson(loss.integers, found)},
               {"keeps", found.keeps(loss)},
               {"image_bytes", loss.imageBytes}};
  json["stages"] = Json::array();
  for (const StageLoss& stage : loss.stages) {
    json["stages"].push_back({{"stage", stage.stage},
                              {"values", stage.values},
                              {"largest", stage.largest},
                              {"mean", stage.mean}});
  }
  return json;
}

}  // namespace

void printProof(const QuantizationFindings& found, std::ostream& out) {
  const QuantizationLoss& loss = found.losses.front();
  stagesOf(loss).print(out);
  out << "same best class in " << percent(found.sameBestClassShare(loss.floats)) << " of "
      << counted(found.frames, "frame") << ", in integers "
      << percent(found.sameBestClassShare(loss.integers)) << "\n";
  if (found.rightRecordings) {
    out << outOf(loss.floats.rightRecordings, found.recordings) << " recordings right, in integers "
        << loss.integers.rightRecordings << "; before " << *found.rightRecordings << "\n";
  }
  out << "image of " << loss.imageBytes << " bytes; before " << found.imageBytes << "\n"
      << counted(static_cast<std::size_t>(loss.bits), "bit")
      << (found.keeps(loss) ? " keep " : " do not keep ") << keptText(found.keep) << "\n";
}

void printWidths(const QuantizationFindings& found, std::ostream& out) {
  widthsOf(found).print(out);
  out << "\n";
  meansOf(found).print(out);
  out << "\n"
      << counted(found.recordings, "recording") << ", " << counted(found.frames, "frame")
      << "; before";
  if (found.rightRecordings)
    out << " " << outOf(*found.rightRecordings, found.recordings) << " right,";
  out << " an image of " << found.imageBytes << " bytes\n"
      << (found.smallestWidth() ? "* the smallest width that keeps " : "no width keeps ")
      << keptText(found.keep) << "\n";
}

nlohmann::ordered_json quantizationJson(const QuantizationFindings& found) {
  const std::optional<int> smallest = found.smallestWidth();
  Json report = {{"recordings", found.recordings},
                 {"frames", found.frames},
                 {"keep", found.keep},
                 {"smallest_width", smallest ? Json(*smallest) : Json()},
                 {"image_bytes", found.imageBytes}};
  if (found.rightRecordings) {
    report["right_recordings"] = *found.rightRecordings;
    report["accuracy"] = found.accuracy(*found.rightRecordings);
  }
  report["widths"] = Json::array();
  for (const QuantizationLoss& loss : found.losses) {
    report["widths"].push_back(lossJson(loss, found));
  }
  return report;
}

}  // namespace mlnn
