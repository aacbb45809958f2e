#include "tools/commands/ReportCommand.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "inference/Evaluation.h"
#include "inference/RecordingInputs.h"
#include "os/Descriptors.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/commands/KnownClasses.h"
#include "tools/commands/Recordings.h"
#include "tools/files/Frames.h"
#include "tools/files/InputFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/OutputFile.h"
#include "tools/files/OwnInputs.h"
#include "tools/page/ModelPage.h"
#include "tools/page/RecordingFindings.h"
#include "tools/page/RoundingTrial.h"
#include "tools/reports/DiffReport.h"
#include "tools/reports/Progress.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

struct Options {
  std::string model;
  std::string out = kStandardStream;
  std::vector<std::string> frames;
  std::string labels;   // "" when not given
  std::string against;  // "" when not given
  bool stacked = false;
  LoadOptions load;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "report";
  help.summary = "Writes a page that shows a model: network, weights, statistics, decisions";
  help.details =
      "The page is one file of HTML for any browser: it needs no other file and no network, and\n"
      "runs nothing. It draws the network, its curves, and the weights of each layer as a picture\n"
      "and a histogram, and has the layers in numbers, what is suspicious, what rounding to few\n"
      "bits would do, sizes, properties and notes. Large layers are drawn with fewer cells, and "
      "the\n"
      "page says how many weights each stands for.\n"
      "\n"
      "With --frames the model runs over recordings: the page shows posteriors over time, units\n"
      "that are dead or saturated, the recordings that were least sure or decided last, and what\n"
      "is still decided with weights of few bits. With\n"
      "--labels, a table in a file with the columns `file` and `label`, also what was taken for\n"
      "what. With --against it shows where another model differs, side by side.";
  help.examples =
      "mlnn report model.mlnn -o model.html\n"
      "mlnn report model.txt -o model.html --frames words/*.npy --labels labels.csv\n"
      "mlnn report new.txt -o new.html --against old.txt";
  help.exitStatus =
      "0  done\n"
      "1  a model, a recording or the labels were refused, or the page cannot be written\n"
      "2  wrong usage";
  return help;
}

std::vector<std::string> inputsOf(const Options& options) {
  std::vector<std::string> inputs = options.frames;
  inputs.insert(inputs.end(), {options.model, options.labels, options.against});
  return inputs;
}

void refuseLossOfInputs(const Options& options) {
  OwnInputs inputs;
  inputs.add(options.model, "model");
  inputs.add(options.against, "model");
  inputs.add(options.labels, "labels");
  for (const std::string& name : options.frames) inputs.add(name, "frames");
  inputs.refuse(options.out);
}

void checkUsage(const Options& options) {
  if (options.out == kStandardStream && isTerminal(kStandardOutput)) {
    throw UsageError("a page is not for a terminal: -o says which file to write");
  }
  refuseSecondStandardInput(inputsOf(options));
  refuseLossOfInputs(options);
}

// Everything that a page is made of.
class Report {
 public:
  explicit Report(const Options& options)
      : options_(options), file_(loadModel(options.model, options.load)) {
    if (!options.against.empty()) other_ = loadModel(options.against, options.load);
    if (other_) compare();
    if (!options.frames.empty()) runRecordings();
  }

  void write() {
    Progress progress(escaped(options_.out), file_.model.layers.size());
    OutputFile output(options_.out);
    PageSubject subject{file_};
    subject.recordings = findings_ ? &*findings_ : nullptr;
    subject.rounding = trial_ ? &*trial_ : nullptr;
    subject.other = other_ ? &*other_ : nullptr;
    subject.otherRecordings = otherFindings_ ? &*otherFindings_ : nullptr;
    subject.diff = other_ ? &diff_ : nullptr;
    writePage(output.stream(), subject, progress.watch());
    output.finish();
  }

 private:
  void compare() {
    diff_.nameA = file_.name;
    diff_.nameB = other_->name;
    diff_.statements = compareStatements(file_.model, other_->model);
    diff_.layers = compareNumbers(file_.model, other_->model);
    diff_.quantization = quantizationBetween(file_.model, other_->model);
  }

  void runRecordings() {
    const KnownClasses classes(options_.labels, file_.model);
    findings_.emplace(file_.model);
    trial_.emplace(file_.model);
    if (other_) {
      otherFindings_.emplace(other_->model);
      diff_.behaviour.emplace(file_.model, other_->model);
    }
    Progress progress(options_.frames.size());
    for (const std::string& name : options_.frames) {
      const Eigen::MatrixXf frames = readRecording(name);
      progress.beginPart(escaped(name), static_cast<std::size_t>(frames.cols()));
      addRecording(name, frames, classes.of(name));
      progress.advance(static_cast<std::size_t>(frames.cols()));
    }
  }

  void addRecording(const std::string& name, const Eigen::MatrixXf& frames,
                    std::optional<Eigen::Index> known) {
    const RecordingInputs inputs =
        inputsFor(InputSide::of(file_.model), frames.rows(), options_.stacked, name);
    if (!findings_->add(name, frames, inputs, known) || !trial_->add(frames, inputs, known)) {
      throw Failure(kCannotBeRun);
    }
    if (!other_) return;
    const RecordingInputs otherInputs =
        inputsFor(InputSide::of(other_->model), frames.rows(), options_.stacked, name);
    const bool sameClasses = findings_->labels() == otherFindings_->labels();
    if (!otherFindings_->add(name, frames, otherInputs, sameClasses ? known : std::nullopt) ||
        !diff_.behaviour->addRecording(name, frames, inputs, otherInputs)) {
      throw Failure(kCannotBeRun);
    }
  }

  const Options& options_;
  ModelFile file_;
  std::optional<ModelFile> other_;
  ModelDiff diff_;
  std::optional<RecordingFindings> findings_;
  std::optional<RoundingTrial> trial_;
  std::optional<RecordingFindings> otherFindings_;
};

int run(const Options& options) {
  checkUsage(options);
  Report(options).write();
  return kDone;
}

}  // namespace

void addReportCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("MODEL", options->model, "Model of either format; - is standard input").required();
  command.add("-o,--out", options->out, "File to write; - is standard output, as without it")
      .check(notEmpty)
      .type("FILE");
  const Option frames =
      command.add("--frames", options->frames, "Recordings to run the model over").type("FRAMES");
  command.addFlag("--stacked", options->stacked, "FRAMES are input vectors, not single frames")
      .needs(frames);
  command.add("--labels", options->labels, "What the recordings are")
      .needs(frames)
      .check(notEmpty)
      .type("CSV");
  command.add("--against", options->against, "Another model to compare it with")
      .check(notEmpty)
      .type("OTHER");
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
