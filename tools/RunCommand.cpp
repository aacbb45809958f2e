#include "tools/RunCommand.h"

#include <filesystem>
#include <iostream>
#include <set>

#include "tools/Escape.h"
#include "tools/Evaluation.h"
#include "tools/Failure.h"
#include "tools/Frames.h"
#include "tools/InputFile.h"
#include "tools/Inputs.h"
#include "tools/ModelFile.h"
#include "tools/Numbers.h"
#include "tools/Table.h"
#include "tools/Tool.h"
#include "tools/TraceWriter.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

struct Options {
  std::string model;
  std::vector<std::string> frames;
  std::string out;
  std::string trace;
  bool stacked = false;
  LoadOptions load;
};

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
      "are called as the model's property `labels` says.\n"
      "\n"
      "OUT is .npy when its name ends so, else text with nine digits. For several FRAMES, or when\n"
      "it is a folder, each result goes into that folder under the name of its FRAMES.\n"
      "\n"
      "DIR gets a file for each stage: inputs, layer-K-affine and layer-K (before and after the\n"
      "activation), outputs; see `mlnn compare`. For several FRAMES each has a folder in DIR.";
  help.examples =
      "mlnn run model.txt word.npy\n"
      "mlnn run model.mlnn word.npy -o posteriors.npy\n"
      "mlnn run model.mlnn words/*.npy -o posteriors/\n"
      "mlnn run model.mlnn word.npy --trace traced/\n"
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

bool isSameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  return fs::equivalent(a, b, error);
}

std::vector<Job> jobsInFolder(const Options& options) {
  std::vector<Job> jobs;
  std::set<std::string> names;
  for (const std::string& frames : options.frames) {
    const std::string name = fs::path(frames).filename().string();
    if (frames == kStandardStream || name.empty()) {
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
  for (const Job& job : jobs) {
    if (job.frames != kStandardStream && isSameFile(job.frames, job.out)) {
      throw UsageError("the result would replace its own frames, " + inQuotes(job.frames));
    }
  }
  return jobs;
}

void addTraces(const Options& options, std::vector<Job>& jobs) {
  if (options.trace.empty()) return;
  const std::vector<std::string> folders = traceFolders(options.trace, options.frames);
  for (std::size_t i = 0; i < jobs.size(); ++i) jobs[i].trace = folders[i];
}

void makeFolder(const std::string& name) {
  std::error_code error;
  if (!fs::create_directory(name, error) && error) {
    throw Failure("cannot make the folder " + inQuotes(name) + ": " + error.message());
  }
}

std::string labelOf(const std::vector<std::string>& labels, Eigen::Index row) {
  return row < 0 ? "?" : labels[static_cast<std::size_t>(row)];
}

std::string valueText(double value, bool isPosterior) {
  return isPosterior ? fixedNumber(value, 6) : generalNumber(value, 6);
}

void printTable(const MultiLayerNNModel& model, const Eigen::MatrixXf& outputs) {
  const std::vector<std::string> labels = classLabels(model);
  Table table({Table::Align::kRight, Table::Align::kLeft, Table::Align::kRight},
              {"frame", "class", model.useSoftmax ? "posterior" : "output"});
  for (Eigen::Index f = 0; f < outputs.cols(); ++f) {
    const Eigen::Index best = bestClass(outputs.col(f));
    table.addRow(
        {std::to_string(f), labelOf(labels, best),
         best < 0 ? "nan" : valueText(static_cast<double>(outputs(best, f)), model.useSoftmax)});
  }
  table.print(std::cout);
  if (!model.useSoftmax) return;
  const Eigen::Index best = recordingClass(outputs);
  std::cout << "recording: " << labelOf(labels, best);
  if (best >= 0)
    std::cout << ", sum of log posteriors " << fixedNumber(sumOfLogs(outputs)[best], 3);
  std::cout << "\n";
}

void warnOfUnusualValues(const Eigen::MatrixXf& frames, const std::string& what) {
  const auto notFinite =
      static_cast<std::size_t>(frames.size() - frames.array().isFinite().count());
  if (notFinite == 0) return;
  printWarning(what + " holds " + counted(notFinite, "value") + " not finite");
}

Eigen::MatrixXf evaluate(MultiLayerNNModel& model, const Options& options, const Job& job) {
  const std::string what = inputName(job.frames);
  const Eigen::MatrixXf frames = readFrames(job.frames);
  const Inputs inputs = Inputs::forFrames(model, frames.rows(), options.stacked, what);
  warnOfUnusualValues(frames, what);
  if (!job.trace.empty()) writeTrace(model, inputs, frames, job.trace);
  Progress progress(escaped(job.frames), static_cast<std::size_t>(frames.cols()));
  return evaluateFrames(model, frames, inputs, progress);
}

int run(const Options& options) {
  std::vector<Job> jobs = jobsOf(options);
  addTraces(options, jobs);
  ModelFile file = loadModel(options.model, options.load);
  if (isIntoFolder(options)) makeFolder(options.out);
  int status = kDone;
  for (const Job& job : jobs) {
    try {
      const Eigen::MatrixXf outputs = evaluate(file.model, options, job);
      if (!job.out.empty()) {
        writeFrames(job.out, outputs);
        continue;
      }
      if (jobs.size() > 1)
        std::cout << (&job == &jobs.front() ? "" : "\n") << escaped(job.frames) << "\n";
      printTable(file.model, outputs);
    } catch (const Failure& failure) {
      printError(failure.what());
      status = kRefused;
    }
  }
  return status;
}

}  // namespace

void addRunCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = tool.addCommand(help(), [options] { return run(*options); });
  command.add_option("MODEL", options->model, "Model of either format; - is standard input")
      ->required();
  command.add_option("FRAMES", options->frames, "Recordings; - is standard input")->required();
  command.add_option("-o,--out", options->out, "File or folder for the outputs")->type_name("OUT");
  command
      .add_option("--trace", options->trace, "Folder for what every layer computes, as .npy files")
      ->type_name("DIR");
  command.add_flag("--stacked", options->stacked, "FRAMES are input vectors, not single frames");
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
