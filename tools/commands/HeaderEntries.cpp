#include "tools/commands/HeaderEntries.h"

#include <sstream>
#include <utility>
#include <vector>

#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/ModelSaving.h"

namespace mlnn {
namespace {

// Writes a model without layers as text and reads it again.
// Returns: whether it could be read, which a note can prevent.
bool readBack(const MultiLayerNNModel& model, MultiLayerNNModel& read) {
  std::ostringstream out;
  writeModel(model, ModelFormat::kText, kExactDigits, out);
  ModelFile file;
  std::vector<Message> messages;
  if (!parseModel(out.str(), file, messages)) return false;
  read = std::move(file.model);
  return true;
}

std::string textOf(const DbnFeatureDescription& desc) {
  std::string text;
  desc.serialize(text);
  return text;
}

// Whether a text keeps the entries of a model that has nothing else, and takes nothing but them
// from it: what a text without any entry reads as is not changed.
bool survivesText(const MultiLayerNNModel& model) {
  MultiLayerNNModel without;
  MultiLayerNNModel with;
  if (!readBack(MultiLayerNNModel(), without) || !readBack(model, with)) return false;
  return with.notes.lines == model.notes.lines && with.props == model.props &&
         with.deltasNorm.minvals.size() == 0 && with.deltasNorm.normvals.size() == 0 &&
         textOf(with.featureDesc) == textOf(without.featureDesc);
}

void refuseLineFeeds(const std::string& text, const std::string& what) {
  if (text.find('\n') == std::string::npos) return;
  throw UsageError(what + " cannot have a line feed: " + inQuotes(text));
}

}  // namespace

void checkNote(const std::string& note) {
  refuseLineFeeds(note, "a note");
  MultiLayerNNModel model;
  model.notes.lines.push_back(note);
  if (survivesText(model)) return;
  throw UsageError("a text model would not keep this as a note, but take it for something else: " +
                   inQuotes(note));
}

void checkProperty(const std::string& key, const std::string& value) {
  refuseLineFeeds(key + "=" + value, "a property");
  if (key.empty()) throw UsageError("a property needs a name before the '='");
  if (key.find(' ') != std::string::npos) {
    throw UsageError("the name of a property cannot have a blank: " + inQuotes(key));
  }
  MultiLayerNNModel model;
  model.props[key] = value;
  if (survivesText(model)) return;
  throw UsageError("a text model would not keep this property: " + inQuotes(key + "=" + value));
}

}  // namespace mlnn
