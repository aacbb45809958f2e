#include "tools/reports/DiffReport.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>

#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/reports/DifferenceReport.h"

namespace mlnn {
namespace {

using Align = Table::Align;
using Json = nlohmann::ordered_json;

// --- Text: what the models say ---

void printLine(char mark, const std::string& what, const std::optional<std::string>& text,
               std::ostream& out) {
  if (text) out << mark << " " << shortened(what) << ": " << shortened(*text) << "\n";
}

void printStatements(const ModelDiff& diff, std::ostream& out) {
  out << "what the models say: "
      << (diff.sameStatements() ? "same" : counted(diff.statements.size(), "difference")) << "\n";
  for (const StatementDifference& statement : diff.statements) {
    printLine('-', statement.what, statement.a, out);
    printLine('+', statement.what, statement.b, out);
  }
}

// --- Text: their numbers ---

void addRows(const LayerDifference& layer, DifferenceTable& table) {
  for (const ArrayDifference& array : layer.arrays) {
    table.addRow(
        {std::to_string(layer.layer), array.array, std::to_string(array.difference.count()),
         std::to_string(array.difference.differing())},
        array.difference);
  }
}

void explain(const std::vector<LayerDifference>& layers, std::ostream& out) {
  bool anyOfTwoKinds = false;
  for (const LayerDifference& layer : layers) {
    if (!layer.sameShape) {
      out << "layer " << layer.layer << ": the shapes differ, so the numbers cannot be compared\n";
    }
    anyOfTwoKinds = anyOfTwoKinds || (layer.sameShape && !layer.sameKind);
  }
  if (!anyOfTwoKinds) return;
  out << "effective: the affine map that a batch-norm layer computes, beside that of a plain one\n";
}

void printArrays(const std::vector<LayerDifference>& layers, std::ostream& out) {
  DifferenceTable table({Align::kRight, Align::kLeft, Align::kRight, Align::kRight},
                        {"layer", "array", "values", "differ"});
  for (const LayerDifference& layer : layers) addRows(layer, table);
  const bool anyShapeIsSame = std::any_of(
      layers.begin(), layers.end(), [](const LayerDifference& layer) { return layer.sameShape; });
  if (anyShapeIsSame) table.print(out);
  explain(layers, out);
}

void printNumbers(const ModelDiff& diff, std::ostream& out) {
  const auto differing =
      std::count_if(diff.layers.begin(), diff.layers.end(),
                    [](const LayerDifference& layer) { return !layer.isSame(); });
  out << "numbers: ";
  if (diff.layers.empty()) {
    out << "no layers to compare\n";
  } else if (differing == 0) {
    out << "same\n";
  } else {
    out << "different in " << differing << " of " << counted(diff.layers.size(), "layer") << "\n";
    printArrays(diff.layers, out);
  }
}

void printQuantization(const Quantization& found, std::ostream& out) {
  out << "quantised: the numbers of the " << (found.isOfB ? "second" : "first")
      << " model are those of the " << (found.isOfB ? "first" : "second") << ", rounded by rows to "
      << describe(found.layers) << "\n";
}

// --- Text: their behaviour ---

void addRow(const StageDifference& stage, DifferenceTable& table) {
  const std::string values = std::to_string(stage.valuesA);
  if (stage.valuesA == stage.valuesB) {
    table.addRow({stage.stage, values}, stage.difference);
  } else {
    table.addRow({stage.stage, values + " | " + std::to_string(stage.valuesB)});
  }
}

std::string describe(const BehaviourDiff& behaviour, const StageDifference& stage) {
  if (stage.valuesA != stage.valuesB) {
    return stage.stage + ", where one model has " + std::to_string(stage.valuesA) +
           " values and the other " + std::to_string(stage.valuesB);
  }
  const FramePlace place = behaviour.placeOfLargest(stage);
  return stage.stage + ", by " + differenceText(stage.difference.largest()) + " at frame " +
         std::to_string(place.frame) + " of " + inQuotes(place.recording) + ", unit " +
         std::to_string(place.unit);
}

void printBehaviour(const ModelDiff& diff, std::ostream& out) {
  const BehaviourDiff& behaviour = *diff.behaviour;
  const std::string tolerance = generalNumber(diff.tolerance, kExactDigits);
  out << "behaviour: the outputs "
      << (diff.sameBehaviour() ? "agree within " : "differ by more than ") << tolerance << " over "
      << counted(behaviour.recordings(), "recording") << ", "
      << counted(behaviour.frames(), "frame") << "\n";
  DifferenceTable table({Align::kLeft, Align::kRight}, {"stage", "values"});
  for (const StageDifference& stage : behaviour.stages()) addRow(stage, table);
  table.print(out);
  const StageDifference* first = behaviour.firstBeyond(diff.tolerance);
  out << "first to diverge: " << (first == nullptr ? "none" : describe(behaviour, *first)) << "\n";
  if (behaviour.outputs().valuesA != behaviour.outputs().valuesB) return;
  out << "same best class: " << behaviour.sameDecisions() << " of "
      << counted(behaviour.frames(), "frame") << "\n";
}

// --- JSON ---

Json textJson(const std::optional<std::string>& text) { return text ? Json(*text) : Json(); }

Json statementsJson(const ModelDiff& diff) {
  Json differences = Json::array();
  for (const StatementDifference& statement : diff.statements) {
    differences.push_back(
        {{"what", statement.what}, {"a", textJson(statement.a)}, {"b", textJson(statement.b)}});
  }
  return {{"same", diff.sameStatements()}, {"differences", differences}};
}

Json layerJson(const LayerDifference& layer) {
  Json arrays = Json::object();
  for (const ArrayDifference& array : layer.arrays) {
    arrays[array.array] = differenceJson(array.difference);
  }
  return {{"layer", layer.layer},
          {"same", layer.isSame()},
          {"same_shape", layer.sameShape},
          {"same_kind", layer.sameKind},
          {"arrays", arrays}};
}

Json numbersJson(const ModelDiff& diff) {
  Json layers = Json::array();
  for (const LayerDifference& layer : diff.layers) layers.push_back(layerJson(layer));
  return {{"same", diff.sameNumbers()}, {"layers", layers}};
}

Json scalesWord(const LayerQuantization& layer) {
  if (layer.bits == 0) return nullptr;
  return layer.scale == RowScale::kLargest ? "largest" : "squares";
}

Json quantizationJson(const std::optional<Quantization>& found) {
  if (!found) return nullptr;
  Json layers = Json::array();
  for (std::size_t i = 0; i < found->layers.size(); ++i) {
    const LayerQuantization& layer = found->layers[i];
    layers.push_back({{"layer", i + 1},
                      {"bits", layer.bits == 0 ? Json() : Json(layer.bits)},
                      {"scales", scalesWord(layer)},
                      {"folded", layer.isFolded},
                      {"other_bias", layer.isShifted}});
  }
  return {{"quantised", found->isOfB ? "b" : "a"}, {"layers", layers}};
}

Json stageJson(const BehaviourDiff& behaviour, const StageDifference& stage, double tolerance) {
  Json json = {{"stage", stage.stage},
               {"diverges", stage.isBeyond(tolerance)},
               {"values_a", stage.valuesA},
               {"values_b", stage.valuesB}};
  if (stage.valuesA != stage.valuesB) return json;
  json["difference"] = differenceJson(stage.difference);
  const FramePlace place = behaviour.placeOfLargest(stage);
  json["place"] = {{"recording", place.recording}, {"frame", place.frame}, {"unit", place.unit}};
  return json;
}

Json behaviourJson(const ModelDiff& diff) {
  if (!diff.behaviour) return nullptr;
  const BehaviourDiff& behaviour = *diff.behaviour;
  const StageDifference* first = behaviour.firstBeyond(diff.tolerance);
  Json stages = Json::array();
  for (const StageDifference& stage : behaviour.stages()) {
    stages.push_back(stageJson(behaviour, stage, diff.tolerance));
  }
  return {{"same", diff.sameBehaviour()},
          {"tolerance", diff.tolerance},
          {"recordings", behaviour.recordings()},
          {"frames", behaviour.frames()},
          {"same_best_class", behaviour.sameDecisions()},
          {"first_to_diverge", first == nullptr ? Json() : Json(first->stage)},
          {"stages", stages}};
}

}  // namespace

std::optional<Quantization> quantizationBetween(const MultiLayerNNModel& a,
                                                const MultiLayerNNModel& b) {
  if (auto layers = findQuantization(a, b)) return Quantization{true, std::move(*layers)};
  if (auto layers = findQuantization(b, a)) return Quantization{false, std::move(*layers)};
  return std::nullopt;
}

bool ModelDiff::sameNumbers() const {
  return std::all_of(layers.begin(), layers.end(),
                     [](const LayerDifference& layer) { return layer.isSame(); });
}

bool ModelDiff::sameBehaviour() const {
  return !behaviour || !behaviour->outputs().isBeyond(tolerance);
}

void printDiff(const ModelDiff& diff, std::ostream& out) {
  out << "--- " << escaped(diff.nameA) << "\n+++ " << escaped(diff.nameB) << "\n";
  printStatements(diff, out);
  printNumbers(diff, out);
  if (diff.quantization) printQuantization(*diff.quantization, out);
  if (diff.behaviour) printBehaviour(diff, out);
}

nlohmann::ordered_json diffJson(const ModelDiff& diff) {
  return {{"a", diff.nameA},
          {"b", diff.nameB},
          {"same", diff.isSame()},
          {"statements", statementsJson(diff)},
          {"numbers", numbersJson(diff)},
          {"quantisation", quantizationJson(diff.quantization)},
          {"behaviour", behaviourJson(diff)}};
}

}  // namespace mlnn
