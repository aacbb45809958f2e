// The page that `mlnn report` writes of a file of either format, alone, beside itself and with
// recordings: it runs nothing, holds no raw control character, and every element that is opened is
// closed.
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/Support.h"
#include "model/ModelFile.h"
#include "tools/page/ModelPage.h"
#include "tools/page/RecordingFindings.h"
#include "tools/page/RoundingTrial.h"
#include "tools/reports/DiffReport.h"

namespace {

using mlnn::ModelFile;
using mlnn::fuzz::require;

constexpr int kMostInputs = 256;

// Elements that are closed in the order in which they were opened. The page is XML, but for its
// first line.
void requireWellFormed(std::string_view page) {
  std::vector<std::string_view> open;
  for (std::size_t at = page.find("\n") + 1; (at = page.find('<', at)) != std::string_view::npos;) {
    const std::size_t end = page.find('>', at);
    require(end != std::string_view::npos, "an element without an end");
    const std::string_view element = page.substr(at + 1, end - at - 1);
    at = end;
    if (element.front() == '/') {
      require(!open.empty() && open.back() == element.substr(1),
              "an element is closed that is not open");
      open.pop_back();
    } else if (element.back() != '/' && element.front() != '?' && element.front() != '!') {
      open.push_back(element.substr(0, element.find_first_of(" \n")));
    }
  }
  require(open.empty(), "an element that is not closed");
}

void check(const mlnn::PageSubject& subject) {
  std::ostringstream out;
  mlnn::writePage(out, subject);
  const std::string page = out.str();
  for (const char c : page) {
    require(static_cast<unsigned char>(c) >= ' ' || c == '\n', "a raw character on the page");
  }
  for (const char* const part : {"<script", "<iframe", "javascript:", "http-equiv=\"refresh"}) {
    require(page.find(part) == std::string::npos, "a page that runs something");
  }
  requireWellFormed(page);
}

void checkRecordings(ModelFile& file, const uint8_t* data, std::size_t size) {
  const int inputs = file.model.numInputs();
  if (inputs <= 0 || inputs > kMostInputs) return;
  mlnn::fuzz::Bytes bytes(data + size - size % 97, size % 97);
  Eigen::MatrixXf frames(inputs, 3);
  for (Eigen::Index i = 0; i < frames.size(); ++i) frames.data()[i] = bytes.value();
  std::string whyNot;
  const auto how = mlnn::RecordingInputs::forFrames(file.model, inputs, true, "f", whyNot);
  if (!how) return;
  mlnn::RecordingFindings found(file.model);
  mlnn::RoundingTrial trial(file.model);
  const std::string name(reinterpret_cast<const char*>(data), size % 40);
  if (!found.add(name, frames, *how, 0) || !found.add("<b>", frames, *how, std::nullopt)) return;
  if (!trial.add(frames, *how, 0)) return;
  mlnn::PageSubject subject{file};
  subject.recordings = &found;
  subject.rounding = &trial;
  check(subject);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  constexpr std::size_t kTail = 2;  // of the mutator's, for another target
  const mlnn::fuzz::Diagnostics diagnostics;
  size -= size < kTail ? size : kTail;
  ModelFile file;
  if (mlnn::openModel(data, size, file) != 0) return 0;
  const mlnn::fuzz::Limits limits(size, 4096, std::size_t{32} << 20);
  file.name = std::string(reinterpret_cast<const char*>(data), size % 30);
  check({file});
  mlnn::ModelDiff diff;
  diff.nameA = diff.nameB = file.name;
  diff.statements = mlnn::compareStatements(file.model, file.model);
  diff.layers = mlnn::compareNumbers(file.model, file.model);
  require(diff.isSame(), "a model differs from itself");
  mlnn::PageSubject both{file};
  both.other = &file;
  both.diff = &diff;
  check(both);
  checkRecordings(file, data, size);
  limits.check();
  return 0;
}
