#include "tools/commands/CheckCommand.h"

#include <algorithm>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "analysis/ModelDigest.h"
#include "analysis/ModelSuspicions.h"
#include "analysis/diagnosis/Diagnosis.h"
#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/Failure.h"
#include "tools/commands/EachFile.h"
#include "tools/files/InputFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/reports/DigestReport.h"
#include "tools/reports/FormatText.h"
#include "tools/reports/Json.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

struct Options {
  std::vector<std::string> models;
  std::string against;
  bool digest = false;
  bool json = false;
  bool strict = false;
  LoadOptions load;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "check";
  help.summary = "Says whether a model file loads, why not and where, and what is odd about it";
  help.details =
      "The library's reader decides whether the file loads. Where it does not, the first place\n"
      "that does not fit is shown, with line and column of a text or the byte of an image.\n"
      "\n"
      "A model that loads may still give nonsense: values that are not finite, units without\n"
      "weights, layers or a feature description that do not fit, batch normalisation that was\n"
      "never filled, a normalisation that does nothing, activations that the file does not record\n"
      "and the like are listed as suspicions.\n"
      "\n"
      "Several models are checked one after another, with --json as an array. --digest and "
      "--against\n"
      "are for a single one.\n"
      "\n"
      "--digest prints a digest of each part of the model on standard output, and all else on\n"
      "standard error. --against compares with such a print and names every part that differs,\n"
      "also those that the checksum of an image does not cover.";
  help.examples =
      "mlnn check model.txt\n"
      "mlnn check --digest model.mlnn > model.digest\n"
      "mlnn check --against model.digest model.mlnn\n"
      "mlnn check --strict --json model.txt | jq .suspicions";
  help.exitStatus =
      "0  every file loads, and no part differs from --against\n"
      "1  one does not load, or differs, or with --strict something is suspicious\n"
      "2  wrong usage";
  return help;
}

// All that was found out.
struct Findings {
  ModelFile file;
  bool loads = false;
  std::vector<Message> messages;  // the reader's own
  std::optional<Misfit> misfit;   // of a file that does not load
  std::vector<Suspicion> suspicions;
  std::optional<ModelDigest> digest;
  std::optional<DigestComparison> comparison;
};

// Sets the activations as every command does. Where none is known, a suspicion says so.
void setActivations(ModelFile& file, const std::string& given) {
  ActFn::ActFn actFn;
  const bool isKnown =
      !given.empty() || ActFn::stringToActFn(file.model.getProp(kHiddenActFnProperty), actFn) == 0;
  if (isKnown) setHiddenActivations(file, given);
}

// Lines first, in their order, and then the model that came out.
std::vector<Suspicion> allSuspicions(const ModelFile& file, const std::string& bytes) {
  std::vector<Suspicion> suspicions;
  if (file.format == ModelFormat::kText) suspicions = suspiciousLines(bytes);
  for (Suspicion& suspicion : suspicionsOf(file)) suspicions.push_back(std::move(suspicion));
  return suspicions;
}

Findings examine(const std::string& name, const Options& options) {
  Findings findings;
  findings.file.name = name;
  const std::string bytes = readInput(name);
  findings.loads = parseModel(bytes, findings.file, findings.messages);
  if (!findings.loads) {
    findings.misfit = diagnose(bytes);
    return findings;
  }
  setActivations(findings.file, options.load.hiddenActFn);
  findings.suspicions = allSuspicions(findings.file, bytes);
  if (options.digest || !options.against.empty()) findings.digest = digestOf(findings.file);
  if (!options.against.empty()) {
    findings.comparison =
        compareDigests(*findings.digest, parseDigest(readInput(options.against), options.against));
  }
  return findings;
}

// --- JSON ---

void setUnlessEmpty(Json& json, const char* key, const std::string& value) {
  if (!value.empty()) json[key] = value;
}

void setUnlessZero(Json& json, const char* key, std::size_t value) {
  if (value != 0) json[key] = value;
}

Json jsonOf(const Misfit& misfit) {
  Json json = {{"offset", misfit.offset}};
  setUnlessZero(json, "line", misfit.line);
  setUnlessZero(json, "column", misfit.column);
  json["field"] = misfit.field;
  json["expected"] = misfit.expected;
  json["found"] = misfit.found;
  setUnlessEmpty(json, "hint", misfit.hint);
  return json;
}

Json jsonOf(const Suspicion& suspicion) {
  Json json = {{"kind", suspicion.kind}, {"text", suspicion.text}};
  setUnlessZero(json, "line", suspicion.line);
  setUnlessZero(json, "layer", suspicion.layer);
  setUnlessEmpty(json, "array", suspicion.array);
  setUnlessZero(json, "row", suspicion.row);
  setUnlessZero(json, "column", suspicion.column);
  setUnlessZero(json, "count", suspicion.count);
  return json;
}

Json jsonOf(const DigestComparison& comparison, const std::string& fileName) {
  Json differences = Json::array();
  for (const DigestComparison::Difference& difference : comparison.differences) {
    differences.push_back({{"section", difference.section}, {"text", difference.text}});
  }
  return {{"file", fileName},
          {"same", comparison.differences.empty()},
          {"differences", differences},
          {"not_compared", comparison.notCompared}};
}

Json jsonOf(const Findings& findings, const Options& options) {
  const ModelFile& file = findings.file;
  Json json = {{"file", file.name}, {"format", formatWord(file.format)}};
  setUnlessZero(json, "version", static_cast<std::size_t>(file.textVersion));
  json["bytes"] = file.length;
  json["loads"] = findings.loads;
  if (findings.misfit) json["misfit"] = jsonOf(*findings.misfit);
  json["messages"] = linesOf(findings.messages, true);
  json["suspicions"] = Json::array();
  for (const Suspicion& suspicion : findings.suspicions) {
    json["suspicions"].push_back(jsonOf(suspicion));
  }
  if (options.digest && findings.digest) json["digest"] = jsonOf(*findings.digest);
  if (findings.comparison) json["against"] = jsonOf(*findings.comparison, options.against);
  return json;
}

// --- Text ---

// Information lines are shown only when they are asked for.
void printMessages(const Findings& findings, const Options& options, std::ostream& out) {
  for (const std::string& line : linesOf(findings.messages, options.load.verbose)) {
    out << "the reader says: " << line << "\n";
  }
}

void printRefusal(const Findings& findings, std::ostream& out) {
  out << inputName(findings.file.name) << " does not load\n";
  if (findings.misfit) {
    out << describe(*findings.misfit) << "\n";
    if (!findings.misfit->hint.empty()) out << "  " << findings.misfit->hint << "\n";
  }
}

void printSuspicions(const Findings& findings, std::ostream& out) {
  const ModelFile& file = findings.file;
  out << inputName(file.name) << " loads: " << formatText(file) << ", "
      << file.model.debug_description() << "\n";
  if (findings.suspicions.empty()) {
    out << "nothing suspicious\n";
    return;
  }
  out << counted(findings.suspicions.size(), "suspicion") << ":\n";
  for (const Suspicion& suspicion : findings.suspicions) out << "  " << suspicion.text << "\n";
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

void printComparison(const Findings& findings, const std::string& fileName, std::ostream& out) {
  const DigestComparison& comparison = *findings.comparison;
  if (comparison.differences.empty()) {
    out << "same as " << inputName(fileName) << "\n";
  } else {
    out << "differs from " << inputName(fileName) << ":\n";
  }
  for (const DigestComparison::Difference& difference : comparison.differences) {
    out << "  " << difference.text << "\n";
  }
  if (comparison.notCompared.empty()) return;
  out << "not compared, since only one of the two formats holds it: "
      << joined(comparison.notCompared) << "\n";
}

// With --digest, the standard output is for the digests alone.
void printText(const Findings& findings, const Options& options) {
  std::ostream& out = options.digest ? std::cerr : std::cout;
  if (!findings.loads) {
    printRefusal(findings, out);
    printMessages(findings, options, out);
    return;
  }
  printSuspicions(findings, out);
  printMessages(findings, options, out);
  if (findings.comparison) printComparison(findings, options.against, out);
  if (options.digest) printDigest(*findings.digest, std::cout);
}

int statusOf(const Findings& findings, const Options& options) {
  const bool differs = findings.comparison && !findings.comparison->differences.empty();
  const bool isOdd = options.strict && !findings.suspicions.empty();
  return !findings.loads || differs || isOdd ? kRefused : kDone;
}

int checkOne(const Options& options) {
  const Findings findings = examine(options.models.front(), options);
  if (options.json) {
    printJson(jsonOf(findings, options));
  } else {
    printText(findings, options);
  }
  return statusOf(findings, options);
}

int checkSeveral(const Options& options) {
  return tellOfEach(
      options.models, options.json, [&](const std::string& name) { return examine(name, options); },
      [&](const Findings& findings) { printText(findings, options); },
      [&](const Findings& findings, JsonPrinter& printer) {
        printer.entry(jsonOf(findings, options));
      },
      [&](const Findings& findings) { return statusOf(findings, options); });
}

void checkUsage(const Options& options) {
  std::vector<std::string> inputs = options.models;
  inputs.push_back(options.against);
  refuseSecondStandardInput(inputs);
  if (options.models.size() == 1) return;
  if (options.digest) throw UsageError("--digest is of one MODEL");
  if (!options.against.empty()) throw UsageError("--against compares one MODEL");
}

int run(const Options& options) {
  checkUsage(options);
  return options.models.size() == 1 ? checkOne(options) : checkSeveral(options);
}

}  // namespace

void addCheckCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("MODEL", options->models, "Models of either format; - is standard input").required();
  command.addFlag("--digest", options->digest, "Print a digest of each part of the model");
  command
      .add("--against", options->against,
           "Compare with digests that were printed earlier, as text or JSON")
      .check(notEmpty)
      .type("FILE");
  command.addFlag("--strict", options->strict, "Fail when something is suspicious");
  command.addFlag("--json", options->json, "Print JSON");
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
