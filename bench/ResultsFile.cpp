#include "bench/ResultsFile.h"

#include <cstdio>
#include <utility>

#include "bench/Machine.h"

namespace mlnn::bench {
namespace {

std::string unfinished(const std::string& name) { return name + ".unfinished"; }

}  // namespace

ResultsFile::ResultsFile(std::string name) : name_(std::move(name)) {
  if (name_.empty()) return;
  file_.open(unfinished(name_));
  for (const auto& [fact, value] : processorFacts()) file_ << fact << '\t' << value << '\n';
}

bool ResultsFile::keep() {
  if (name_.empty()) return true;
  file_.close();
  const bool isKept = file_ && std::rename(unfinished(name_).c_str(), name_.c_str()) == 0;
  if (!isKept) std::fprintf(stderr, "cannot write %s\n", name_.c_str());
  return isKept;
}

}  // namespace mlnn::bench
