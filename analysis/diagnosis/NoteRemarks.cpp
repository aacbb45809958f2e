#include "analysis/diagnosis/NoteRemarks.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "features/TrainingNotes.h"
#include "features/string_split.h"
#include "layers/Messages.h"
#include "model/ModelFormat.h"
#include "model/MultiLayerNNModel.h"
#include "text/Escape.h"
#include "text/TextParts.h"

namespace mlnn {
namespace {

// Whether the C library's conversion, which the reader uses, takes the whole word.
bool isNumber(const std::string& word) {
  char* end = nullptr;
  std::strtof(word.c_str(), &end);
  return !word.empty() && end == word.c_str() + word.size();
}

// What the reader says of a normalisation line when that is all there is in a model.
std::string readerOn(const std::string& line) {
  const CollectedMessages captured;
  std::istringstream in(std::string(kHeaderVersion1) + "\n" + line + "\n" + kNumLayersKeyword +
                        " 0\n");
  MultiLayerNNModel().deserializeAscii(in);
  std::string said = captured.text();
  said.erase(said.find_last_not_of('\n') + 1);
  return said;
}

std::string remarkOnNormalisation(const std::string& line, const char* marker) {
  const std::string said = readerOn(line);
  if (!said.empty()) {
    return std::string("names ") + marker + " but sets nothing: " + escaped(said);
  }
  constexpr std::size_t kValuesField = 6;
  std::vector<std::string> fields;
  string_split(fields, line, " \t");
  string_split(fields, fields.at(kValuesField), ",");
  const auto odd = std::find_if_not(fields.begin(), fields.end(), isNumber);
  if (odd == fields.end()) return "";
  return std::string("value ") + std::to_string(odd - fields.begin() + 1) + " of " + marker + ", " +
         inQuotes(*odd) + ", is no number; it counts as far as it reads as one, or as 0";
}

std::string remarkOnProperty(const std::string& line) {
  const std::string key = line.substr(std::string(kPropertyPrefix).size());
  if (contains(key, " ")) return "";
  return "gives the property " + inQuotes(key) + " no value; the whole line becomes its value";
}

// Of several options on one line only one counts, and its value is the line's last word.
std::string remarkOnOption(const std::string& line) {
  std::vector<std::string> options;
  for (const char* option :
       {kDeltasOption, kWinSizeLeftOption, kWinSizeRightOption, kLineKernelsOption}) {
    if (contains(line, option)) options.emplace_back(option);
  }
  if (options.empty()) return "";
  if (options.size() > 1) {
    return "has several options, of which only " + options.front() +
           " counts, with the line's last word";
  }
  const std::string value = line.substr(line.rfind(' ') + 1);
  if (isNumber(value)) return "";
  return "the value " + inQuotes(value) + " of " + options.front() +
         " is no number; it counts as far as it reads as one, or as 0";
}

}  // namespace

std::string remarkOnNote(const std::string& line) {
  if (startsWith(line, kPropertyPrefix)) return remarkOnProperty(line);
  for (const char* marker : {kMinvalsMarker, kNormvalsMarker}) {
    if (contains(line, marker)) return remarkOnNormalisation(line, marker);
  }
  return contains(line, kOptionMarker) ? remarkOnOption(line) : "";
}

}  // namespace mlnn
