#include "tools/commands/PlotCommand.h"

#include <algorithm>
#include <iostream>
#include <memory>

#include "tools/Failure.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/OutputFile.h"
#include "tools/files/OwnInputs.h"
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
};

CommandHelp help() {
  CommandHelp help;
  help.name = "plot";
  help.summary = "Draws a model's training curves and a histogram of each layer's weights";
  help.details =
      "With -o writes a picture (SVG); without it prints a sketch, or with --json the numbers "
      "that\n"
      "there are to draw. Values that are not finite are counted, not drawn.";
  help.examples =
      "mlnn plot model.txt\n"
      "mlnn plot -o model.svg model.mlnn";
  help.exitStatus =
      "0  done\n"
      "1  the model does not load or the picture cannot be written\n"
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

void printSketches(const std::vector<Chart>& charts, const Options& options) {
  const std::size_t width =
      std::max(options.width == 0 ? terminalWidth() : options.width, kMinChartWidth);
  bool isFirst = true;
  for (const Chart& chart : charts) {
    if (!isFirst) std::cout << "\n";
    isFirst = false;
    printChart(std::cout, chart, width, characterSet(options));
  }
}

Json jsonOf(const Chart& chart) {
  return {{"kind", chart.kind == Chart::Kind::kCurve ? "curve" : "histogram"},
          {"title", chart.title},
          {"remark", chart.remark},
          {"x_label", chart.xLabel},
          {"y_label", chart.yLabel},
          {"x_low", chart.xLow},
          {"x_high", chart.xHigh},
          {"values", chart.values}};
}

Json jsonOf(const ModelFile& file, const std::vector<Chart>& charts) {
  Json json = {{"file", file.name}, {"charts", Json::array()}};
  for (const Chart& chart : charts) json["charts"].push_back(jsonOf(chart));
  return json;
}

int run(const Options& options) {
  OwnInputs inputs;
  inputs.add(options.model, "model");
  inputs.refuse(options.out);
  LoadOptions load;
  load.keepLinear = true;  // activations are not drawn
  const ModelFile file = loadModel(options.model, load);
  const std::vector<Chart> charts = chartsOf(file.model, options.bins);
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
  const Option ascii = command.addFlag("--ascii", options->ascii, "Sketch with ASCII characters");
  const Option unicode =
      command.addFlag("--unicode", options->unicode, "Sketch with block characters")
          .excludes(ascii);
  command.addFlag("--json", options->json, "Print what there is to draw as JSON")
      .excludes(out)
      .excludes(ascii)
      .excludes(unicode);
}

}  // namespace mlnn
