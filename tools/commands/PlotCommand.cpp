#include "tools/commands/PlotCommand.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "inference/Evaluation.h"
#include "tools/Failure.h"
#include "tools/commands/KnownClasses.h"
#include "tools/commands/Recordings.h"
#include "tools/files/Frames.h"
#include "tools/files/InputFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/OutputFile.h"
#include "tools/files/OwnInputs.h"
#include "tools/page/RecordingCharts.h"
#include "tools/page/RecordingFindings.h"
#include "tools/page/RecordingSection.h"
#include "tools/reports/Json.h"
#include "tools/reports/ModelCharts.h"
#include "tools/reports/SvgChart.h"
#include "tools/reports/Terminal.h"
#include "tools/reports/TerminalChart.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

constexpr std::size_t kDefaultBins = 60;
constexpr std::size_t kMaxBins = 1000;

struct Options {
  std::string model;
  std::string out;
  std::size_t bins = kDefaultBins;
  std::size_t width = 0;  // 0: as wide as the terminal
  bool ascii = false;
  bool unicode = false;
  bool json = false;
  std::vector<std::string> frames;
  std::string labels;  // "" when not given
  bool stacked = false;
  LoadOptions load;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "plot";
  help.summary =
      "Draws a model's training curves, each layer's weights, and posteriors of recordings";
  help.details =
      "With -o writes a picture (SVG); without it prints a sketch, or with --json the numbers "
      "that\n"
      "there are to draw. Values that are not finite are counted, not drawn. On a terminal the\n"
      "sketch has colours, unless NO_COLOR is set.\n"
      "\n"
      "With --frames the posteriors of recordings are drawn over time, of many those of the least\n"
      "sure; with --labels, a table in a file with the columns `file` and `label`, also what was\n"
      "taken for what. `mlnn report` has more.";
  help.examples =
      "mlnn plot model.txt\n"
      "mlnn plot -o model.svg model.mlnn\n"
      "mlnn plot model.txt --frames words/*.npy --labels labels.csv";
  help.exitStatus =
      "0  done\n"
      "1  the model, a recording or the labels were refused, or the picture cannot be written\n"
      "2  wrong usage";
  return help;
}

void writePicture(const ModelFile& file, const std::vector<Chart>& charts, const Options& options) {
  OutputFile output(options.out);
  const std::string heading = file.name + ": " + file.model.debug_description();
  writeSvg(output.stream(), heading, charts);
  output.finish();
}

CharacterSet characterSet(const Options& options) {
  if (options.ascii) return CharacterSet::kAscii;
  return options.unicode || localeIsUtf8() ? CharacterSet::kUnicode : CharacterSet::kAscii;
}

TerminalLook lookOf(const Options& options) {
  const std::optional<TerminalLook> terminal = terminalLook();
  TerminalLook look;
  look.width = std::max(options.width == 0 ? terminalWidth() : options.width, kMinChartWidth);
  look.set = characterSet(options);
  look.hasColours = terminal && terminal->hasColours;
  return look;
}

void printSketches(const std::vector<Chart>& charts, const Options& options) {
  const TerminalLook look = lookOf(options);
  bool isFirst = true;
  for (const Chart& chart : charts) {
    if (!isFirst) std::cout << "\n";
    isFirst = false;
    printChart(std::cout, chart, look);
  }
}

const char* kindOf(const Chart& chart) {
  if (chart.kind == Chart::Kind::kMap) return "map";
  return chart.kind == Chart::Kind::kCurve ? "curve" : "histogram";
}

Json jsonOf(const Chart& chart) {
  Json json = {{"kind", kindOf(chart)},   {"title", chart.title},    {"remark", chart.remark},
               {"x_label", chart.xLabel}, {"y_label", chart.yLabel}, {"x_low", chart.xLow},
               {"x_high", chart.xHigh},   {"values", chart.values}};
  if (chart.kind != Chart::Kind::kMap) return json;
  json["columns"] = chart.columns;
  json["row_names"] = chart.rowNames;
  json["column_names"] = chart.columnNames;
  return json;
}

Json jsonOf(const ModelFile& file, const std::vector<Chart>& charts) {
  Json json = {{"file", file.name}, {"charts", Json::array()}};
  for (const Chart& chart : charts) json["charts"].push_back(jsonOf(chart));
  return json;
}

std::vector<std::string> inputsOf(const Options& options) {
  std::vector<std::string> inputs = options.frames;
  inputs.insert(inputs.end(), {options.model, options.labels});
  return inputs;
}

void refuseLossOfInputs(const Options& options) {
  OwnInputs inputs;
  inputs.add(options.model, "model");
  inputs.add(options.labels, "labels");
  for (const std::string& name : options.frames) inputs.add(name, "frames");
  inputs.refuse(options.out);
}

std::vector<Chart> recordingCharts(const MultiLayerNNModel& model, const Options& options) {
  if (options.frames.empty()) return {};
  if (!model.useSoftmax) {
    throw Failure("--frames needs a model with a softmax, whose outputs are posteriors");
  }
  const KnownClasses classes(options.labels, model);
  RecordingFindings found(model);
  for (const std::string& name : options.frames) {
    const Eigen::MatrixXf frames = readRecording(name);
    const RecordingInputs inputs =
        inputsFor(InputSide::of(model), frames.rows(), options.stacked, name);
    if (!found.add(name, frames, inputs, classes.of(name))) throw Failure(kCannotBeRun);
  }
  if (classes.areKnown() && !hasConfusionTable(found.confusion())) {
    printInfo("so many classes occur that a table of them is not drawn; see 'mlnn report'");
  }
  return chartsOf(found);
}

int run(const Options& options) {
  refuseSecondStandardInput(inputsOf(options));
  refuseLossOfInputs(options);
  LoadOptions load = options.load;
  load.keepLinear = options.frames.empty();  // activations are not drawn
  const ModelFile file = loadModel(options.model, load);
  std::vector<Chart> charts = chartsOf(file.model, options.bins);
  for (Chart& chart : recordingCharts(file.model, options)) charts.push_back(std::move(chart));
  if (charts.empty()) printInfo("the model has neither curves nor weights to draw");
  if (options.json) {
    printJson(jsonOf(file, charts));
  } else if (options.out.empty()) {
    printSketches(charts, options);
  } else {
    writePicture(file, charts, options);
  }
  return kDone;
}

}  // namespace

void addPlotCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("MODEL", options->model, "Model of either format; - is standard input").required();
  const Option out =
      command.add("-o,--out", options->out, "SVG file to write; - is standard output")
          .check(notEmpty)
          .type("FILE");
  command.add("--bins", options->bins, "Bins of each histogram")
      .inRange(std::size_t{1}, kMaxBins)
      .type("N")
      .showDefault();
  command.add("--width", options->width, "Width of the sketch; as the terminal without it")
      .inRange(kMinChartWidth, std::size_t{1000})
      .type("N");
  const Option frames =
      command.add("--frames", options->frames, "Recordings whose posteriors to draw")
          .type("FRAMES");
  command.addFlag("--stacked", options->stacked, "FRAMES are input vectors, not single frames")
      .needs(frames);
  command.add("--labels", options->labels, "What the recordings are")
      .needs(frames)
      .check(notEmpty)
      .type("CSV");
  const Option ascii = command.addFlag("--ascii", options->ascii, "Sketch with ASCII characters");
  const Option unicode =
      command.addFlag("--unicode", options->unicode, "Sketch with block characters")
          .excludes(ascii);
  command.addFlag("--json", options->json, "Print what there is to draw as JSON")
      .excludes(out)
      .excludes(ascii)
      .excludes(unicode);
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
