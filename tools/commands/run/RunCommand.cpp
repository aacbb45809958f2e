#include "tools/commands/run/RunCommand.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <utility>

#include "inference/CodedFwdPass.h"
#include "inference/Evaluation.h"
#include "inference/IntegerFwdPass.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/commands/CoarseGrid.h"
#include "tools/commands/NetworkOptions.h"
#include "tools/commands/Recordings.h"
#include "tools/commands/run/RecordingGroup.h"
#include "tools/commands/run/RunJobs.h"
#include "tools/commands/run/RunResults.h"
#include "tools/files/FrameSource.h"
#include "tools/files/FrameWriter.h"
#include "tools/files/Frames.h"
#include "tools/files/InputFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/OutputBatch.h"
#include "tools/files/RecordingFiles.h"
#include "tools/files/RegularFile.h"
#include "tools/files/RunnableModel.h"
#include "tools/files/TraceWriter.h"
#include "tools/reports/Progress.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

struct Options {
  std::string model;
  RecordingOptions recordings;
  std::string out;
  std::string trace;
  bool stacked = false;
  bool json = false;
  bool jsonLines = false;
  int bits = 0;  // of the weights; 0 for the model itself
  bool integers = false;
  int jobs = Threads::processors();
  bool resume = false;
  std::string words;            // the layers that take words in integers; "" for none
  std::optional<bool> softmax;  // as the model says without it
  LoadOptions load;
};

constexpr char kFirstLayer[] = "first";
constexpr char kAllLayers[] = "all";

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
      "--out. On a terminal a single recording ends with a line of that class's posteriors over\n"
      "time.\n"
      "\n"
      "OUT is .npy when its name ends so, else text with nine digits. For several FRAMES, or when\n"
      "it is a folder, each result goes into that folder under the name of its FRAMES. Results\n"
      "reach the disk together, those of a second or of some hundred recordings at a time; an\n"
      "interrupt leaves those whole that are there.\n"
      "\n"
      "--resume goes on where a run with the same options ended: FRAMES are left out, and nothing "
      "is\n"
      "said of them, whose result is a file that was written after MODEL and FRAMES were last\n"
      "changed. A result takes its name when it is whole, so part of one is never taken for it.\n"
      "\n"
      "A recording of any length takes little memory: its frames are read, evaluated and\n"
      "written some hundred at a time. Only a trace holds the whole, and JSON of a pipe.\n"
      "Frames from a pipe or a terminal get their results as they arrive, in columns that have\n"
      "room for every class.\n"
      "\n"
      "--jobs says how many threads share the work: short recordings are evaluated at the same "
      "time,\n"
      "the frames of a long one are divided. What comes out is the same with any number, and in "
      "the\n"
      "order of FRAMES.\n"
      "\n"
      "A folder among FRAMES stands for the files in it, but for hidden ones; the result of\n"
      "words/a.npy is called words/a.npy then.\n"
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
      "mlnn run model.mlnn words/ -o posteriors/ --resume\n"
      "mlnn run quantised.mlnn word.npy --integers\n"
      "mlnn run --json model.mlnn words/*.npy | jq -r .recordings[].recording.label\n"
      "find . -name '*.npy' -print0 | mlnn run model.mlnn -0 --files-from - --json-lines\n"
      "extract-features word.wav | mlnn run model.mlnn -";
  help.exitStatus =
      "0  done\n"
      "1  the model or a recording was refused, or a result could not be written; the other\n"
      "   recordings are done all the same\n"
      "2  wrong usage";
  return help;
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

// The whole recording at once.
Eigen::MatrixXf evaluate(RunnableModel& model, FwdPass& pass, const Options& options,
                         const RunJob& job, Progress& progress) {
  const Eigen::MatrixXf frames = readRecording(job.frames);
  const RecordingInputs inputs =
      inputsFor(model.inputSide(), frames.rows(), options.stacked, job.frames);
  progress.beginPart(escaped(job.frames), static_cast<std::size_t>(frames.cols()));
  if (!job.trace.empty()) return writeTrace(model.model(), inputs, frames, job.trace, progress);
  return orFail(evaluateFrames(pass, frames, inputs, progress.watch()), kCannotBeRun);
}

RunForm formOf(const Options& options) {
  if (options.jsonLines) return RunForm::kJsonLines;
  return options.json ? RunForm::kJson : RunForm::kTable;
}

// Runs the jobs in turn. Their results reach the disk together, as many as a batch takes or as a
// second brings, so that an interrupt costs no more than that.
class JobRunner {
 public:
  JobRunner(const Options& options, const std::vector<RunJob>& jobs, RunnableModel& model)
      : options_(options),
        jobs_(jobs),
        model_(model),
        other_(otherPass(model, options)),
        group_(model.inputSide(), options.stacked, options.jobs, pass(),
               [this] { return anotherPass(); }),
        results_(formOf(options), options.model, model.outputSide(), jobs.size() > 1),
        progress_(jobs.size()) {
    progress_.tellPace("frames");
  }

  // Returns: the exit status.
  int run() {
    for (std::size_t i = 0; i < jobs_.size();) {
      const std::size_t together = group_.length(jobs_, i);
      if (together > 1) {
        runGroup(i, together);
        i += together;
      } else {
        runOne(i++);
      }
    }
    settle(jobs_.size());
    progress_.hide();
    results_.finish();
    return status_;
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kPatience{1};

  FwdPass& pass() { return other_ ? *other_ : model_.pass(); }

  // Another one for another thread.
  std::unique_ptr<FwdPass> anotherPass() {
    if (const auto* const coded = dynamic_cast<const CodedFwdPass*>(other_.get())) {
      return coded->another();
    }
    if (const auto* const integers = dynamic_cast<const IntegerFwdPass*>(other_.get())) {
      return integers->another();
    }
    return model_.anotherPass();
  }

  void runOne(std::size_t index) {
    const RunJob& job = jobs_[index];
    const bool isShort = RecordingGroup::isShort(job);
    const bool isWhole = isShort || !job.trace.empty() || isHeldForJson(job);
    if (options_.jobs > 1 && threads_ == nullptr && !isShort) {
      threads_ = Threads::start(options_.jobs);
      pass().setThreads(threads_);
    }
    if (!isShort) settle(index);  // who interrupts this one keeps those before
    if (isWhole) {
      tell(index, [&] { useWhole(index, evaluate(model_, pass(), options_, job, progress_)); });
    } else {
      tell(index, [&] { runInPieces(index); });
    }
  }

  // JSON comes at the end: of a pipe, which may have none, readFrames holds no more than it should.
  bool isHeldForJson(const RunJob& job) const {
    return formOf(options_) != RunForm::kTable && !identityOfRegularFile(job.frames);
  }

  // However long it is, no more than some hundred frames of it are held.
  void runInPieces(std::size_t index) {
    const RunJob& job = jobs_[index];
    const std::unique_ptr<FrameSource> frames = FrameSource::open(job.frames);
    const auto width = static_cast<Eigen::Index>(frames->width());
    const RecordingInputs inputs =
        inputsFor(model_.inputSide(), width, options_.stacked, job.frames);
    progress_.beginPart(escaped(job.frames), static_cast<std::size_t>(frames->expected()));
    std::optional<FrameWriter> file;
    if (!job.out.empty()) file.emplace(job.out, pass().numOutputs(), frames->count());
    results_.begin(job, frames->arrives());
    evaluatePieces(job, inputs, *frames, file);
    if (file) {
      file->finish(batch_);
      batched_.push_back(index);
    } else {
      progress_.hide();
    }
    results_.end();
  }

  // Hands each piece's outputs on before the next piece is read.
  void evaluatePieces(const RunJob& job, const RecordingInputs& inputs, FrameSource& frames,
                      std::optional<FrameWriter>& file) {
    const bool prints = file ? job.out == kStandardStream : frames.arrives();
    uint64_t notFinite = 0;
    const auto next = [&](Eigen::Index most, Eigen::MatrixXf& some) {
      if (!frames.next(most, some)) return false;
      notFinite += static_cast<uint64_t>(some.size() - some.array().isFinite().count());
      return true;
    };
    const auto use = [&](const Eigen::MatrixXf& outputs) {
      if (prints) progress_.hide();  // both may go to the same terminal
      results_.addOutputs(outputs);
      if (!file) return static_cast<bool>(std::cout);
      file->add(outputs);
      return !frames.arrives() || file->handOn();
    };
    if (!evaluateArriving(pass(), inputs, next, use, progress_.watch())) {
      throw Failure(kCannotBeRun);
    }
    const std::string warning = notFiniteWarning(notFinite, job.frames);
    if (!warning.empty()) printWarning(warning);
  }

  void useWhole(std::size_t index, const Eigen::MatrixXf& outputs) {
    const RunJob& job = jobs_[index];
    if (!job.out.empty()) {
      writeFrames(job.out, outputs, batch_);
      batched_.push_back(index);
    }
    if (job.out.empty()) progress_.hide();  // both may go to the same terminal
    results_.begin(job, false);
    results_.addOutputs(outputs);
    results_.end();
  }

  void runGroup(std::size_t first, std::size_t count) {
    std::vector<EvaluatedRecording> results = group_.evaluate(jobs_, first, count);
    for (std::size_t i = 0; i < count; ++i) {
      const auto frames = static_cast<std::size_t>(results[i].outputs.cols());
      progress_.beginPart(escaped(jobs_[first + i].frames), std::max<std::size_t>(frames, 1));
      if (!results[i].said.empty()) std::cerr << results[i].said;
      tell(first + i, [&] {
        if (results[i].failure) throw Failure(*results[i].failure);
        useWhole(first + i, results[i].outputs);
      });
      progress_.advance(frames);
    }
  }

  // Does the work of a recording, which writes or shows its results, or tells why there are none.
  template <typename Work>
  void tell(std::size_t index, const Work& work) {
    const RunJob& job = jobs_[index];
    try {
      work();
    } catch (const Failure& failure) {
      results_.addFailure(job, failure);
      status_ = kRefused;
    }
    if (job.out.empty() || batch_.isFull() || Clock::now() > settled_ + kPatience) {
      settle(index + 1);
    }
  }

  // What the jobs before this one have come to is final.
  void settle(std::size_t done) {
    for (const auto& [place, failure] : batch_.commit()) {
      const std::size_t job = batched_[place];
      results_.failAfterAll(job - firstUnsettled_, jobs_[job], failure);
      status_ = kRefused;
    }
    batched_.clear();
    firstUnsettled_ = done;
    settled_ = Clock::now();
    results_.settle();
  }

  const Options& options_;
  const std::vector<RunJob>& jobs_;
  RunnableModel& model_;
  std::unique_ptr<FwdPass> other_;
  std::shared_ptr<Threads> threads_;  // of a long recording; null before there was one
  RecordingGroup group_;
  RunResults results_;
  Progress progress_;
  OutputBatch batch_;
  std::vector<std::size_t> batched_;  // the jobs whose results the batch holds
  std::size_t firstUnsettled_ = 0;
  Clock::time_point settled_ = Clock::now();
  int status_ = kDone;
};

void checkUsage(const Options& options) {
  refuseSecondStandardInput({options.model, options.recordings.filesFrom});
  if ((options.json || options.jsonLines) && options.out == kStandardStream) {
    throw UsageError("the JSON goes to standard output, so OUT cannot go there too");
  }
  if (options.resume && (options.out.empty() || options.out == kStandardStream)) {
    throw UsageError("--resume looks for results in OUT, so it goes with a file or folder there");
  }
  if (options.resume && !options.trace.empty()) {
    throw UsageError("a trace has no sign that it is whole, so --trace does not go with --resume");
  }
  if (options.bits != 0 && !options.trace.empty()) {
    throw UsageError("a trace shows the model itself, so --trace does not go with --bits");
  }
  if (options.integers && !options.trace.empty()) {
    throw UsageError("a trace shows floats, so --trace does not go with --integers");
  }
}

std::vector<std::string> inputsOf(const Options& options, const std::vector<RunJob>& jobs) {
  std::vector<std::string> inputs = {options.model, options.recordings.filesFrom};
  for (const RunJob& job : jobs) inputs.push_back(job.frames);
  return inputs;
}

int run(const Options& options) {
  checkUsage(options);
  RunJobs jobs = runJobs(recordingFiles(options.recordings), options.out, options.trace);
  refuseSecondStandardInput(inputsOf(options, jobs.jobs));
  refuseLossOfInputs(options.model, jobs.jobs);
  const bool needsModel = !options.trace.empty() || options.bits != 0;
  RunnableModel model(options.model, options.load, needsModel, options.softmax);
  if (options.resume) leaveOutDone(options.model, jobs.jobs);
  makeFolders(options.out, jobs);
  return JobRunner(options, jobs.jobs, model).run();
}

}  // namespace

void addRunCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("MODEL", options->model, "Model of either format; - is standard input").required();
  command.add("FRAMES", options->recordings.frames,
              "Recordings, and folders of them; - is standard input");
  command
      .add("--files-from", options->recordings.filesFrom,
           "File with the names of further FRAMES, one a line; - is standard input")
      .check(notEmpty)
      .type("FILE");
  command.addFlag("-0,--null", options->recordings.nulSeparated,
                  "The names in FILE end with NUL, as `find -print0` ends them");
  command.add("-o,--out", options->out, "File or folder for the outputs")
      .check(notEmpty)
      .type("OUT");
  command.add("--trace", options->trace, "Folder for what every layer computes, as .npy files")
      .check(notEmpty)
      .type("DIR");
  command.addFlag("--stacked", options->stacked, "FRAMES are input vectors, not single frames");
  command.addFlag("--json", options->json, "Print the classes as JSON");
  command.addFlag("--json-lines", options->jsonLines,
                  "Print them as JSON, a line for each recording as soon as it is done");
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
  command
      .add("-j,--jobs", options->jobs,
           "Threads that share the work (default: as many as processors)")
      .inRange(1, Threads::kMost)
      .type("N");
  command.addFlag("--resume", options->resume, "Leave out FRAMES whose results are there");
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
