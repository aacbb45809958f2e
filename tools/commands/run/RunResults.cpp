#include "tools/commands/run/RunResults.h"

#include <iostream>
#include <iterator>
#include <utility>

#include "text/Escape.h"
#include "tools/reports/PosteriorLine.h"
#include "tools/reports/Terminal.h"

namespace mlnn {
namespace {

Json failureJson(const RunJob& job, const Failure& failure) {
  return {{"file", job.frames}, {"error", failure.what()}};
}

}  // namespace

RunResults::RunResults(RunForm form, std::string model, OutputSide network, bool named)
    : form_(form), model_(std::move(model)), network_(std::move(network)), named_(named) {}

void RunResults::remember(Json entry) {
  if (form_ != RunForm::kTable) entries_.push_back(std::move(entry));
}

void RunResults::add(const RunJob& job, const Eigen::MatrixXf& outputs) {
  if (form_ != RunForm::kTable) {
    Json recording = {{"file", job.frames}};
    recording.update(decisionsJson(network_, outputs));
    remember(std::move(recording));
  } else if (job.out.empty()) {
    if (named_) std::cout << (isFirst_ ? "" : "\n") << escaped(job.frames) << "\n";
    printDecisions(network_, outputs, std::cout);
    if (const auto look = terminalLook(); look && !named_) {
      printPosteriorLine(network_, outputs, *look, std::cout);
    }
  }
  isFirst_ = false;
}

void RunResults::addFailure(const RunJob& job, const Failure& failure) {
  printError(failure.what());
  remember(failureJson(job, failure));
}

void RunResults::failAfterAll(std::size_t place, const RunJob& job, const Failure& failure) {
  printError(failure.what());
  if (form_ != RunForm::kTable) entries_[settled_ + place] = failureJson(job, failure);
}

void RunResults::settle() {
  settled_ = entries_.size();
  if (form_ != RunForm::kJsonLines) return;
  for (const Json& entry : entries_) printJsonLine(entry);
  entries_.clear();
  settled_ = 0;
}

void RunResults::finish() {
  settle();
  if (form_ != RunForm::kJson) return;
  Json json = {{"model", model_}, {"recordings", Json::array()}};
  json["recordings"].get_ref<Json::array_t&>().assign(std::make_move_iterator(entries_.begin()),
                                                      std::make_move_iterator(entries_.end()));
  printJson(json);
}

}  // namespace mlnn
