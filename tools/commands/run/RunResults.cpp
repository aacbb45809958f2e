#include "tools/commands/run/RunResults.h"

#include <iostream>
#include <utility>

#include "inference/Evaluation.h"
#include "text/Escape.h"

namespace mlnn {

RunResults::RunResults(RunForm form, std::string model, OutputSide network, bool named)
    : form_(form), model_(std::move(model)), network_(std::move(network)), named_(named) {}

void RunResults::begin(const RunJob& job, bool arrives) {
  file_ = job.frames;
  goesToFile_ = !job.out.empty();
  arriving_.reset();
  decisions_.reset();
  look_.reset();
  line_ = {};
  if (isTable() && goesToFile_) return;
  if (isTable() && arrives) {
    printName();
    arriving_.emplace(network_, std::cout);
  } else {
    decisions_.emplace(network_.arePosteriors);
  }
  if (isTable() && !named_) look_ = terminalLook();
}

void RunResults::addOutputs(const Eigen::MatrixXf& outputs) {
  if (arriving_) arriving_->add(outputs);
  if (decisions_) decisions_->add(outputs);
  if (look_) line_.add(outputs);
}

void RunResults::printName() {
  if (named_) std::cout << (isFirst_ ? "" : "\n") << escaped(file_) << "\n";
  isFirst_ = false;
}

void RunResults::end() {
  if (!isTable()) {
    entries_.push_back({file_, std::nullopt, std::move(decisions_)});
  } else if (arriving_) {
    arriving_->finish();
  } else if (decisions_) {
    printName();
    printDecisions(network_, *decisions_, std::cout);
  }
  if (look_ && network_.arePosteriors) {
    const Eigen::VectorXd& sums = arriving_ ? arriving_->sums() : decisions_->sums();
    printPosteriorLine(network_, line_.outputs(), largestSum(sums), *look_, std::cout);
  }
  arriving_.reset();
  decisions_.reset();
}

void RunResults::addFailure(const RunJob& job, const Failure& failure) {
  arriving_.reset();
  decisions_.reset();
  printError(failure.what());
  if (!isTable()) entries_.push_back({job.frames, failure.what(), std::nullopt});
}

void RunResults::failAfterAll(std::size_t place, const RunJob& job, const Failure& failure) {
  printError(failure.what());
  if (!isTable()) entries_[settled_ + place] = {job.frames, failure.what(), std::nullopt};
}

void RunResults::print(const Entry& entry, JsonPrinter& out) const {
  out.beginObject();
  out.member("file", entry.file);
  if (entry.error) {
    out.member("error", *entry.error);
  } else {
    printDecisions(network_, *entry.decisions, out);
  }
  out.end();
}

void RunResults::settle() {
  settled_ = entries_.size();
  if (form_ != RunForm::kJsonLines) return;
  for (const Entry& entry : entries_) {
    JsonPrinter out(std::cout, JsonPrinter::Form::kLine);
    print(entry, out);
    std::cout.flush();
  }
  entries_.clear();
  settled_ = 0;
}

void RunResults::finish() {
  settle();
  if (form_ != RunForm::kJson) return;
  JsonPrinter out(std::cout);
  out.beginObject();
  out.member("model", model_);
  out.key("recordings");
  out.beginArray();
  for (const Entry& entry : entries_) print(entry, out);
  out.end();
  out.end();
}

}  // namespace mlnn
