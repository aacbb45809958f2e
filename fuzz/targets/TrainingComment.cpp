// The parser of training comments, reached by a text model whose only note line is the input,
// against a plain reading of the line.
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "fuzz/ModelChecks.h"
#include "fuzz/Support.h"

namespace {

using mlnn::fuzz::require;

constexpr int kValues = 120;

// The pieces between delimiters, empty ones dropped, one character after the other.
std::vector<std::string> pieces(const std::string& text, const char* delimiters) {
  std::vector<std::string> found(1);
  for (const char c : text) {
    if (c != '\0' && std::strchr(delimiters, c) != nullptr) {
      if (!found.back().empty()) found.emplace_back();
    } else {
      found.back() += c;
    }
  }
  if (found.back().empty()) found.pop_back();
  return found;
}

// What the line must make of 120 values, and what must be printed.
std::string expect(const std::string& line, std::vector<float>& values) {
  const std::vector<std::string> fields = pieces(line, " \t");
  if (fields.size() < 7 || fields[0] != "#" || fields[1] != "TRAIN" || fields[2] != "rbm_train") {
    return "ERROR: extract_norm_params: could not parse line\n";
  }
  const std::vector<std::string> numbers = pieces(fields[6], ",");
  if (numbers.size() != kValues) {
    return "ERROR: extract_norm_params: did not find 120 values, found " +
           std::to_string(numbers.size()) + " instead\n";
  }
  for (std::size_t i = 0; i < kValues; ++i) values[i] = std::strtof(numbers[i].c_str(), nullptr);
  return "";
}

bool sameBits(const Eigen::VectorXf& values, const std::vector<float>& expected) {
  return values.size() == kValues &&
         std::memcmp(values.data(), expected.data(), kValues * sizeof(float)) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  std::string line(reinterpret_cast<const char*>(data), size);
  line = line.substr(0, line.find('\n'));
  if (line.empty() || line[0] != '#') line.insert(0, "# ");
  if (line.compare(0, 6, "# NVP ") == 0) return 0;
  const bool isMinvals = line.find("deltas_norm_minvals") != std::string::npos;
  if (!isMinvals && line.find("deltas_norm_normvals") == std::string::npos) {
    line += "\tdeltas_norm_normvals";  // as a further field, which is ignored
  }
  std::vector<float> minvals(kValues, 0.0f);
  std::vector<float> normvals(kValues, 1.0f);
  const std::string messages = expect(line, isMinvals ? minvals : normvals);

  mlnn::fuzz::TextReading reading;
  mlnn::fuzz::readText("MultiLayerNNModel\n" + line + "\nnum_layers 0\n", reading);
  require(reading.result == 0, "the line makes the text unreadable");
  require(reading.messages == messages, "prints otherwise than the plain reading");
  require(sameBits(reading.model.deltasNorm.minvals, minvals), "minvals");
  require(sameBits(reading.model.deltasNorm.normvals, normvals), "normvals");
  require(reading.model.notes.lines.size() == 1, "the line is not kept as a note");
  return 0;
}
