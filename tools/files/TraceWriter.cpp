#include "tools/files/TraceWriter.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <utility>

#include "analysis/Stage.h"
#include "inference/Evaluation.h"
#include "inference/NNFwdPassFromFile.h"
#include "os/Names.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/Frames.h"
#include "tools/files/InputFile.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

using Eigen::Index;

constexpr char kEnding[] = ".npy";

void makeFolder(const std::string& folder) {
  std::error_code error;
  fs::create_directories(pathOf(folder), error);
  if (error) {
    throw Failure("cannot make the folder " + inQuotes(folder) + ": " + error.message());
  }
}

// A smaller model's trace would leave some of these files as they are.
void refuseForeignStages(const std::string& folder, const std::vector<std::string>& own) {
  for (const std::string& stage : stagesIn(folder)) {
    if (std::find(own.begin(), own.end(), stage) != own.end()) continue;
    throw Failure("the folder " + inQuotes(folder) + " holds the trace of another model (" + stage +
                  kEnding + "); remove it first");
  }
}

// Empty matrices for what all stages compute over some number of frames.
std::vector<Eigen::MatrixXf> roomFor(const std::vector<const Eigen::MatrixXf*>& block,
                                     Index frames) {
  std::vector<Eigen::MatrixXf> room;
  room.reserve(block.size());
  for (const Eigen::MatrixXf* values : block) room.emplace_back(values->rows(), frames);
  return room;
}

std::vector<Eigen::MatrixXf> evaluateRecording(MultiLayerNNModel& model,
                                               const RecordingInputs& inputs,
                                               const Eigen::MatrixXf& frames, Progress& progress) {
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  RecordingInputs::Blocks blocks(inputs, frames);
  std::vector<Eigen::MatrixXf> stages;
  Index done = 0;
  while (const auto block = blocks.next(blocks.maxLength())) {
    const StageValues values = orFail(evaluateStages(*pass, *block), kCannotBeRun);
    const std::vector<const Eigen::MatrixXf*> results = values.inOrder();
    if (stages.empty()) stages = roomFor(results, frames.cols());
    for (std::size_t i = 0; i < stages.size(); ++i) {
      stages[i].middleCols(done, block->cols()) = *results[i];
    }
    done += block->cols();
    progress.advance(static_cast<std::size_t>(block->cols()));
  }
  return stages;
}

}  // namespace

std::vector<std::string> traceFolders(const std::string& folder,
                                      const std::vector<RecordingFile>& recordings) {
  if (recordings.size() == 1) return {folder};
  std::vector<std::string> folders;
  std::set<std::string> names;
  for (const RecordingFile& recording : recordings) {
    const fs::path path = pathOf(recording.name);
    const std::string stem = nameOf(path.stem());
    if (isNoEntry(stem)) {
      throw UsageError("the trace of " + inputName(recording.file) + " has no name in the folder " +
                       inQuotes(folder));
    }
    const std::string name = nameOf(path.parent_path() / pathOf(stem));
    if (!names.insert(name).second) {
      throw UsageError("two traces would be called " + inQuotes(name) + " in the folder " +
                       inQuotes(folder));
    }
    folders.push_back(nameOf(pathOf(folder) / pathOf(name)));
  }
  return folders;
}

void refuseTraceOf(const OwnInputs& inputs, const std::string& folder) {
  std::error_code error;
  if (!fs::is_directory(pathOf(folder), error)) return;
  for (const std::string& stage : stagesIn(folder)) inputs.refuse(stagePath(folder, stage));
}

Eigen::MatrixXf writeTrace(MultiLayerNNModel& model, const RecordingInputs& inputs,
                           const Eigen::MatrixXf& frames, const std::string& folder,
                           Progress& progress) {
  const std::vector<std::string> names = stageNames(model.layers.size());
  std::vector<Eigen::MatrixXf> stages = evaluateRecording(model, inputs, frames, progress);
  makeFolder(folder);
  refuseForeignStages(folder, names);
  for (std::size_t i = 0; i < names.size(); ++i) {
    writeFrames(stagePath(folder, names[i]), stages[i]);
  }
  return std::move(stages.back());
}

std::vector<std::string> stagesIn(const std::string& folder) {
  std::error_code error;
  std::vector<std::string> stages;
  for (fs::directory_iterator entry(pathOf(folder), error), end; !error && entry != end;
       entry.increment(error)) {
    const fs::path path = entry->path();
    const std::string name = nameOf(path.stem());
    if (path.extension() == kEnding && isStageName(name)) stages.push_back(name);
  }
  if (error) throw Failure("cannot read the folder " + inQuotes(folder) + ": " + error.message());
  std::sort(stages.begin(), stages.end(), comesBefore);
  return stages;
}

std::string stagePath(const std::string& folder, const std::string& stage) {
  return nameOf(pathOf(folder) / pathOf(stage + kEnding));
}

}  // namespace mlnn
