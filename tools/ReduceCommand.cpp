#include "tools/ReduceCommand.h"

#include <algorithm>
#include <charconv>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/Escape.h"
#include "tools/Evaluation.h"
#include "tools/Failure.h"
#include "tools/Frames.h"
#include "tools/InputFile.h"
#include "tools/Json.h"
#include "tools/ModelFile.h"
#include "tools/ModelSaving.h"
#include "tools/Numbers.h"
#include "tools/PrecisionSweep.h"
#include "tools/Progress.h"
#include "tools/RecordingLabels.h"
#include "tools/Table.h"
#include "tools/Tool.h"

namespace mlnn {
namespace {

constexpr int kMaxBits = 31;
constexpr int kDigits = 3;  // of errors in the table

struct Options {
  std::string in;
  std::string out;  // "" when not given
  std::optional<int> bits;
  std::string sweep;  // "2..16"; "" when not given
  std::vector<std::string> frames;
  bool stacked = false;
  std::string labels;  // "" when not given
  double keep = 0.99;
  bool json = false;
  LoadOptions load;
  SaveOptions save;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "reduce";
  help.summary = "Snaps a model's parameters to a grid of few bits, or shows what that would do";
  help.details =
      "--bits snaps all weights and biases to one grid of 2^N steps from the smallest to the\n"
      "largest of them, always downwards, and writes OUT. The vectors of batch-norm layers stay\n"
      "as they are, so fold these first.\n"
      "\n"
      "--sweep tries a range of widths and writes nothing. Its table shows, for each width, the\n"
      "largest and the mean absolute error of a parameter, the largest difference of an output,\n"
      "and the share of frames whose best class is still the same. With --labels, a table in a\n"
      "file with the columns `file` and `label`, it shows too how many recordings are decided\n"
      "rightly, by the largest sum of log posteriors, and at which width accuracy falls: the\n"
      "largest one at which fewer are than without reduction. A star marks the smallest width\n"
      "that keeps the share of best classes that --keep asks for.";
  help.examples =
      "mlnn reduce model.txt small.mlnn --bits 8\n"
      "mlnn reduce model.txt --sweep 2..16 --frames words/*.npy --labels labels.csv\n"
      "mlnn reduce model.txt --sweep 4..12 --frames words/*.npy --keep 0.999 --json";
  help.exitStatus =
      "0  done, whether or not a width keeps what --keep asks for\n"
      "1  IN, a recording or the labels were refused, or OUT cannot be written; OUT is as it was\n"
      "2  wrong usage";
  return help;
}

struct Widths {
  int first;
  int last;
};

// Parses "8" or "2..16".
Widths widthsOf(const std::string& text) {
  const char* const end = text.data() + text.size();
  int first = -1;
  int last = -1;
  std::from_chars_result result = std::from_chars(text.data(), end, first);
  if (result.ec == std::errc() && result.ptr == end) {
    last = first;
  } else if (text.compare(static_cast<std::size_t>(result.ptr - text.data()), 2, "..") == 0) {
    result = std::from_chars(result.ptr + 2, end, last);
  }
  const bool isRange = result.ec == std::errc() && result.ptr == end;
  if (isRange && first >= 0 && first <= last && last <= kMaxBits) return {first, last};
  throw UsageError("--sweep: expected a range within 0..31, as in 2..16, but found " +
                   inQuotes(text));
}

void checkUsage(const Options& options) {
  if (options.bits.has_value() == !options.sweep.empty()) {
    throw UsageError("expected either --bits, to write a model, or --sweep, to show a table");
  }
  if (options.bits && options.out.empty()) throw UsageError("OUT is required with --bits");
  if (options.bits) return;
  if (!options.out.empty()) {
    throw UsageError("--sweep writes no model, but OUT is given: " + inQuotes(options.out));
  }
  if (options.frames.empty()) throw UsageError("--sweep requires --frames");
}

void warnOfBatchNorm(const MultiLayerNNModel& model) {
  const auto number = std::count_if(model.layers.begin(), model.layers.end(),
                                    [](const NNLayer* layer) { return layer->isBatchNorm; });
  if (number == 0) return;
  printWarning("the vectors of " + counted(static_cast<std::size_t>(number), "batch-norm layer") +
               " keep all their bits (fold the model before)");
}

std::vector<std::string> inputsOf(const Options& options) {
  std::vector<std::string> inputs = options.frames;
  inputs.insert(inputs.end(), {options.in, options.labels});
  return inputs;
}

int reduce(const Options& options, ModelFile& file) {
  file.model.retainPrecisionBits(*options.bits);
  const ModelFormat format = formatToSave(options.out, options.save, file.format);
  saveModel(file.model, options.out, format, options.save);
  return kDone;
}

// --- The sweep ---

// What a sweep found out.
struct Findings {
  std::size_t recordings = 0;
  std::size_t frames = 0;
  std::optional<std::size_t> rightRecordings;  // of the model as it is, where labels are known
  std::vector<PrecisionLoss> losses;
  std::optional<int> smallestWidth;    // that keeps enough decisions
  std::optional<int> accuracyFallsAt;  // the largest width with fewer right recordings
};

class KnownClasses {
 public:
  KnownClasses(const std::string& labels, const MultiLayerNNModel& model) {
    if (labels.empty()) return;
    if (!model.useSoftmax) {
      throw Failure("--labels needs a model with a softmax, whose outputs are posteriors");
    }
    labels_ = RecordingLabels::read(labels);
    classes_ = classLabels(model);
  }

  bool areKnown() const { return labels_.has_value(); }

  std::optional<Eigen::Index> of(const std::string& recording) const {
    if (!labels_) return std::nullopt;
    const std::string& label = labels_->of(recording);
    const auto found = std::find(classes_.begin(), classes_.end(), label);
    if (found == classes_.end()) {
      throw Failure("the label " + inQuotes(label) + " of " + inQuotes(recording) +
                    " is no class of the model");
    }
    return found - classes_.begin();
  }

 private:
  std::optional<RecordingLabels> labels_;
  std::vector<std::string> classes_;
};

double shareOf(std::size_t part, std::size_t whole) {
  return static_cast<double>(part) / static_cast<double>(whole);
}

void addRecordings(const Options& options, const KnownClasses& classes, PrecisionSweep& sweep) {
  Progress progress(options.frames.size());
  for (const std::string& name : options.frames) {
    Eigen::MatrixXf frames = readRecording(name);
    progress.beginPart(escaped(name), static_cast<std::size_t>(frames.cols()));
    sweep.addRecording(name, std::move(frames), options.stacked, classes.of(name), progress);
  }
}

Findings sweep(const Options& options, MultiLayerNNModel& model) {
  const Widths widths = widthsOf(options.sweep);
  const KnownClasses classes(options.labels, model);
  PrecisionSweep sweep(model);
  addRecordings(options, classes, sweep);
  Findings found;
  found.recordings = sweep.recordings();
  found.frames = sweep.frames();
  if (classes.areKnown()) found.rightRecordings = sweep.rightRecordings();
  const auto steps = static_cast<std::size_t>(widths.last - widths.first) + 1;
  Progress progress("trying widths", steps * sweep.frames());
  for (int bits = widths.first; bits <= widths.last; ++bits) {
    found.losses.push_back(sweep.measure(bits, progress));
    const double kept = shareOf(found.losses.back().sameBestClass, found.frames);
    if (!found.smallestWidth && kept >= options.keep) found.smallestWidth = bits;
    if (found.rightRecordings && found.losses.back().rightRecordings < *found.rightRecordings) {
      found.accuracyFallsAt = bits;
    }
  }
  return found;
}

std::string percent(double share, int digits) { return fixedNumber(share * 100, digits) + " %"; }

std::string outOf(std::size_t part, std::size_t whole) {
  return std::to_string(part) + " of " + std::to_string(whole);
}

Table tableOf(const Findings& found, bool isPosterior) {
  std::vector<std::string> heading = {"bits", "largest error", "mean error",
                                      isPosterior ? "posterior" : "output", "same class"};
  if (found.rightRecordings) heading.emplace_back("right");
  heading.emplace_back("");  // the star
  std::vector<Table::Align> columns(heading.size(), Table::Align::kRight);
  Table table(std::move(columns), std::move(heading));
  for (const PrecisionLoss& loss : found.losses) {
    std::vector<std::string> row = {std::to_string(loss.bits),
                                    generalNumber(loss.largestWeightError, kDigits),
                                    generalNumber(loss.meanWeightError, kDigits),
                                    generalNumber(loss.largestOutputDifference, kDigits),
                                    percent(shareOf(loss.sameBestClass, found.frames), 2)};
    if (found.rightRecordings) row.push_back(outOf(loss.rightRecordings, found.recordings));
    row.emplace_back(found.smallestWidth == loss.bits ? "*" : "");
    table.addRow(std::move(row));
  }
  return table;
}

void printFallOfAccuracy(const Findings& found) {
  if (!found.accuracyFallsAt) {
    std::cout << "no width decides fewer recordings rightly\n";
    return;
  }
  const auto at = static_cast<std::size_t>(*found.accuracyFallsAt - found.losses.front().bits);
  std::cout << "accuracy falls at "
            << counted(static_cast<std::size_t>(*found.accuracyFallsAt), "bit") << ", to "
            << outOf(found.losses[at].rightRecordings, found.recordings) << "\n";
}

void printFindings(const Findings& found, const Options& options, bool isPosterior) {
  tableOf(found, isPosterior).print(std::cout);
  std::cout << counted(found.recordings, "recording") << ", " << counted(found.frames, "frame");
  if (found.rightRecordings) {
    std::cout << "; without reduction " << outOf(*found.rightRecordings, found.recordings)
              << " right";
  }
  const std::string decisions = generalNumber(options.keep * 100, 6) + " % of the best classes";
  std::cout << (found.smallestWidth ? "\n* the smallest width that keeps " : "\nno width keeps ")
            << decisions << "\n";
  if (found.rightRecordings) printFallOfAccuracy(found);
}

Json lossJson(const PrecisionLoss& loss, const Findings& found, double keep) {
  const double kept = shareOf(loss.sameBestClass, found.frames);
  Json json = {{"bits", loss.bits},
               {"largest_weight_error", loss.largestWeightError},
               {"mean_weight_error", loss.meanWeightError},
               {"largest_output_difference", loss.largestOutputDifference},
               {"same_best_class", loss.sameBestClass},
               {"same_best_class_share", kept},
               {"keeps", kept >= keep}};
  if (!found.rightRecordings) return json;
  json["right_recordings"] = loss.rightRecordings;
  json["accuracy"] = shareOf(loss.rightRecordings, found.recordings);
  return json;
}

void printJson(const Findings& found, const Options& options) {
  Json report = {{"recordings", found.recordings},
                 {"frames", found.frames},
                 {"keep", options.keep},
                 {"smallest_width", nullptr}};
  if (found.smallestWidth) report["smallest_width"] = *found.smallestWidth;
  if (found.rightRecordings) {
    report["right_recordings"] = *found.rightRecordings;
    report["accuracy"] = shareOf(*found.rightRecordings, found.recordings);
    report["accuracy_falls_at"] = found.accuracyFallsAt ? Json(*found.accuracyFallsAt) : Json();
  }
  report["widths"] = Json::array();
  for (const PrecisionLoss& loss : found.losses) {
    report["widths"].push_back(lossJson(loss, found, options.keep));
  }
  mlnn::printJson(report);
}

int run(const Options& options) {
  checkUsage(options);
  if (!options.bits) widthsOf(options.sweep);
  refuseSecondStandardInput(inputsOf(options));
  ModelFile file = loadModel(options.in, options.load);
  warnOfBatchNorm(file.model);
  if (options.bits) return reduce(options, file);
  const Findings found = sweep(options, file.model);
  if (options.json) {
    printJson(found, options);
  } else {
    printFindings(found, options, file.model.useSoftmax);
  }
  return kDone;
}

}  // namespace

void addReduceCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = tool.addCommand(help(), [options] { return run(*options); });
  command.add_option("IN", options->in, "Model of either format; - is standard input")->required();
  command.add_option("OUT", options->out, "File to write with --bits; - is standard output");
  command.add_option("--bits", options->bits, "Reduce to N bits and write OUT")
      ->check(CLI::Range(0, kMaxBits))
      ->type_name("N");
  CLI::Option* sweep = command.add_option("--sweep", options->sweep, "Try each number of bits")
                           ->type_name("FIRST..LAST");
  command.add_option("--frames", options->frames, "Recordings to try them on")
      ->needs(sweep)
      ->type_name("FRAMES");
  command.add_flag("--stacked", options->stacked, "FRAMES are input vectors, not single frames")
      ->needs(sweep);
  command.add_option("--labels", options->labels, "What the recordings are")
      ->needs(sweep)
      ->type_name("CSV");
  command.add_option("--keep", options->keep, "Share of best classes that a width has to keep")
      ->needs(sweep)
      ->check(CLI::Range(0.0, 1.0))
      ->type_name("SHARE")
      ->capture_default_str();
  command.add_flag("--json", options->json, "Print the table as JSON")->needs(sweep);
  addSaveOptions(command, options->save);
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
