#include "tools/commands/RunCommand.h"

#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "inference/CodedFwdPass.h"
#include "inference/Evaluation.h"
#include "inference/IntegerFwdPass.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/commands/CoarseGrid.h"
#include "tools/commands/NetworkOptions.h"
#include "tools/commands/Recordings.h"
#include "tools/files/Frames.h"
#include "tools/files/InputFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/OwnInputs.h"
#include "tools/files/RunnableModel.h"
#include "tools/files/TraceWriter.h"
#include "tools/reports/Json.h"
#include "tools/reports/Progress.h"
#include "tools/reports/RunReport.h"
#include "tools/shell/Tool.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

struct Options {
  std::string model;
  std::vector<std::string> frames;
  std::string out;
  std::string trace;
  bool stacked = false;
  bool json = false;
  int bits = 0;  // of the weights; 0 for the model itself
  bool integers = false;
  std::string words;            // the layers that take words in integers; "" for none
  std::optional<bool> softmax;  // as the model says without it
  LoadOptions load;
};

constexpr char kFirstLayer[] = "first";
constexpr char kAllLayers[] = "all";

// One recording: where its frames come from, where the outputs go ("" for the table), and the
// folder for what every layer computes ("" for none).
struct Job {
  std::string frames;
  std::string out;
  std::string trace;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "run";
  help.summary = "Computes the outputs of a model for recorded frames";
  help.details =
      "FRAMES is a .npy file (float32 or float64, frames x values) or text: one frame a line,\n"
      "numbers separated by blanks, tabs or commas. Its width tells what it holds: single frames,\n"
      "which are normalised and stacked as the model's feature description says, or input vectors\n"
      "of the model. Where both fit they are single frames, unless --stacked says otherwise.\n"
      "\n"
      "Without --out, a table shows the best class of each frame, counted from 0, and, for a "
      "model\n"
      "with softmax, the class of the whole recording: the largest sum of log posteriors. Classes\n"
      "are called as the model's property `labels` says. --json prints the same as JSON, also "
      "with\n"
      "--out.\n"
      "\n"
      "OUT is .npy when its name ends so, else text with nine digits. For several FRAMES, or when\n"
      "it is a folder, each result goes into that folder under the name of its FRAMES.\n"
      "\n"
      "No result and no file of a trace may replace the model or FRAMES.\n"
      "\n"
      "DIR gets a file for each stage: inputs, layer-K-affine and layer-K (before and after the\n"
      "activation), outputs; see `mlnn compare`. For several FRAMES each has a folder in DIR.\n"
      "\n"
      "An image does not say whether a softmax goes over the outputs, and is taken to have one;\n"
      "--softmax off says that there is none. It counts for this run, also where a text says\n"
      "otherwise.\n"
      "\n"
      "With --bits the weights are held as codes of so many bits, and the results are those of\n"
      "`mlnn reduce` with as many.\n"
      "\n"
      "With --integers layers that `mlnn quantize` has rounded are computed in integers: inputs\n"
      "are rounded to 8 bits, with a scale for each frame, and the results are the same to the "
      "bit\n"
      "on every processor. --words gives the inputs of the first layer, or of all, 16 bits.";
  help.examples =
      "mlnn run model.txt word.npy\n"
      "mlnn run model.mlnn word.npy -o posteriors.npy\n"
      "mlnn run model.mlnn words/*.npy -o posteriors/\n"
      "mlnn run model.mlnn word.npy --trace traced/\n"
      "mlnn run quantised.mlnn word.npy --integers\n"
      "mlnn run --json model.mlnn words/*.npy | jq -r .recordings[].recording.label\n"
      "extract-features word.wav | mlnn run model.mlnn -";
  help.exitStatus =
      "0  done\n"
      "1  the model or a recording was refused, or a result could not be written; the other\n"
      "   recordings are done all the same\n"
      "2  wrong usage";
  return help;
}

// Whether the name is that of a folder, or asks for one.
bool isFolder(const std::string& name) {
  std::error_code error;
  return fs::is_directory(name, error) || (!name.empty() && name.back() == '/');
}

bool isIntoFolder(const Options& options) {
  return !options.out.empty() && (options.frames.size() > 1 || isFolder(options.out));
}

std::vector<Job> jobsInFolder(const Options& options) {
  std::vector<Job> jobs;
  std::set<std::string> names;
  for (const std::string& frames : options.frames) {
    const std::string name = fs::path(frames).filename().string();
    if (frames == kStandardStream || isNoEntry(name)) {
      throw UsageError("the result of " + inputName(frames) + " has no name in the folder " +
                       inQuotes(options.out));
    }
    if (!names.insert(name).second) {
      throw UsageError("two results would be called " + inQuotes(name) + " in the folder " +
                       inQuotes(options.out));
    }
    jobs.push_back({frames, (fs::path(options.out) / name).string(), ""});
  }
  return jobs;
}

std::vector<Job> jobsOf(const Options& options) {
  std::vector<Job> jobs;
  if (options.out.empty()) {
    for (const std::string& frames : options.frames) jobs.push_back({frames, "", ""});
  } else if (isIntoFolder(options)) {
    jobs = jobsInFolder(options);
  } else {
    jobs.push_back({options.frames.front(), options.out, ""});
  }
  return jobs;
}

void addTraces(const Options& options, std::vector<Job>& jobs) {
  if (options.trace.empty()) return;
  const std::vector<std::string> folders = traceFolders(options.trace, options.frames);
  for (std::size_t i = 0; i < jobs.size(); ++i) jobs[i].trace = folders[i];
}

void refuseLossOfInputs(const Options& options, const std::vector<Job>& jobs) {
  OwnInputs inputs;
  inputs.add(options.model, "model");
  for (const Job& job : jobs) inputs.add(job.frames, "frames");
  for (const Job& job : jobs) {
    inputs.refuse(job.out);
    if (!job.trace.empty()) refuseTraceOf(inputs, job.trace);
  }
}

void makeFolder(const std::string& name) {
  std::error_code error;
  if (!fs::create_directory(name, error) && error) {
    throw Failure("cannot make the folder " + inQuotes(name) + ": " + error.message());
  }
}

std::unique_ptr<FwdPass> codedPass(RunnableModel& model, int bits) {
  warnOfCoarseGrid(model.model(), bits);
  return CodedFwdPass::create(model.model(), bits, CodesFor::kMemory);
}

WideInputs wideInputsOf(const std::string& words) {
  if (words.empty()) return WideInputs::kNone;
  return words == kAllLayers ? WideInputs::kAll : WideInputs::kFirst;
}

std::unique_ptr<FwdPass> integerPass(const RunnableModel& model, WideInputs wideInputs) {
  std::unique_ptr<IntegerFwdPass> pass = model.integerPass(wideInputs);
  if (pass != nullptr && pass->numIntegerLayers() == 0) {
    printWarning(
        "no layer is quantised by rows, so all are computed in floats; see 'mlnn quantize'");
  }
  return pass;
}

// The forward pass over few bits or in integers, where the options ask for one.
std::unique_ptr<FwdPass> otherPass(RunnableModel& model, const Options& options) {
  if (options.bits == 0 && !options.integers) return nullptr;
  std::unique_ptr<FwdPass> pass = options.integers ? integerPass(model, wideInputsOf(options.words))
                                                   : codedPass(model, options.bits);
  if (pass == nullptr) throw Failure(kCannotBeRun);
  return pass;
}

Eigen::MatrixXf evaluate(RunnableModel& model, FwdPass& pass, const Options& options,
                         const Job& job, Progress& progress) {
  const Eigen::MatrixXf frames = readRecording(job.frames);
  const RecordingInputs inputs =
      inputsFor(model.inputSide(), frames.rows(), options.stacked, job.frames);
  progress.beginPart(escaped(job.frames), static_cast<std::size_t>(frames.cols()));
  if (!job.trace.empty()) return writeTrace(model.model(), inputs, frames, job.trace, progress);
  return orFail(evaluateFrames(pass, frames, inputs, progress.watch()), kCannotBeRun);
}

// What the jobs of a command line have found, told as they are done or, as JSON, at the end.
class Report {
 public:
  Report(const Options& options, OutputSide network)
      : options_(options), network_(std::move(network)) {
    json_ = {{"model", options.model}, {"recordings", Json::array()}};
  }

  void add(const Job& job, const Eigen::MatrixXf& outputs) {
    if (options_.json) {
      Json recording = {{"file", job.frames}};
      recording.update(decisionsJson(network_, outputs));
      json_["recordings"].push_back(std::move(recording));
    } else if (job.out.empty()) {
      if (options_.frames.size() > 1) {
        std::cout << (isFirst_ ? "" : "\n") << escaped(job.frames) << "\n";
      }
      printDecisions(network_, outputs, std::cout);
    }
    isFirst_ = false;
  }

  void addFailure(const Job& job, const Failure& failure) {
    printError(failure.what());
    json_["recordings"].push_back({{"file", job.frames}, {"error", failure.what()}});
  }

  void finish() const {
    if (options_.json) printJson(json_);
  }

 private:
  const Options& options_;
  OutputSide network_;
  Json json_;
  bool isFirst_ = true;
};

int runJobs(const std::vector<Job>& jobs, const Options& options, RunnableModel& model) {
  int status = kDone;
  const std::unique_ptr<FwdPass> other = otherPass(model, options);
  FwdPass& pass = other ? *other : model.pass();
  Report report(options, model.outputSide());
  Progress progress(jobs.size());
  for (const Job& job : jobs) {
    try {
      const Eigen::MatrixXf outputs = evaluate(model, pass, options, job, progress);
      if (!job.out.empty()) writeFrames(job.out, outputs);
      if (job.out.empty()) progress.hide();  // both may go to the same terminal
      report.add(job, outputs);
    } catch (const Failure& failure) {
      report.addFailure(job, failure);
      status = kRefused;
    }
  }
  progress.hide();
  report.finish();
  return status;
}

void checkUsage(const Options& options) {
  std::vector<std::string> inputs = options.frames;
  inputs.push_back(options.model);
  refuseSecondStandardInput(inputs);
  if (options.json && options.out == kStandardStream) {
    throw UsageError("the JSON goes to standard output, so OUT cannot go there too");
  }
  if (options.bits != 0 && !options.trace.empty()) {
    throw UsageError("a trace shows the model itself, so --trace does not go with --bits");
  }
  if (options.integers && !options.trace.empty()) {
    throw UsageError("a trace shows floats, so --trace does not go with --integers");
  }
}

int run(const Options& options) {
  checkUsage(options);
  std::vector<Job> jobs = jobsOf(options);
  addTraces(options, jobs);
  refuseLossOfInputs(options, jobs);
  const bool needsModel = !options.trace.empty() || options.bits != 0;
  RunnableModel model(options.model, options.load, needsModel, options.softmax);
  if (isIntoFolder(options)) makeFolder(options.out);
  return runJobs(jobs, options, model);
}

}  // namespace

void addRunCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("MODEL", options->model, "Model of either format; - is standard input").required();
  command.add("FRAMES", options->frames, "Recordings; - is standard input").required();
  command.add("-o,--out", options->out, "File or folder for the outputs")
      .check(notEmpty)
      .type("OUT");
  command.add("--trace", options->trace, "Folder for what every layer computes, as .npy files")
      .check(notEmpty)
      .type("DIR");
  command.addFlag("--stacked", options->stacked, "FRAMES are input vectors, not single frames");
  command.addFlag("--json", options->json, "Print the classes as JSON");
  Option bits = command.add("--bits", options->bits, "Hold the weights as codes of so many bits")
                    .inRange(CodedFwdPass::kMinBits, CodedFwdPass::kMaxBits)
                    .type("BITS");
  Option integers =
      command.addFlag("--integers", options->integers, "Compute quantised layers in integers");
  integers.excludes(bits);
  command.add("--words", options->words, "Layers whose inputs take 16 bits in integers: first, all")
      .oneOf({kFirstLayer, kAllLayers})
      .needs(integers)
      .type("LAYERS");
  addOnOffOption(command, "--softmax", options->softmax,
                 "Whether a softmax goes over the outputs (default: as the model says)");
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
