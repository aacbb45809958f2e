#include "tools/commands/NetworkOptions.h"

#include <cmath>

#include "layers/NNLayer.h"
#include "text/Escape.h"
#include "tools/Failure.h"

namespace mlnn {
namespace {

std::string activationNames() {
  std::string names;
  for (int32_t code = 0; code < ActFn::kCount; ++code) {
    names += (code == 0 ? "" : ", ") + ActFn::actFnToString(static_cast<ActFn::ActFn>(code));
  }
  return names;
}

// What a check returns: the reason against a value, or "".
std::string whyNoActFn(const std::string& name) {
  ActFn::ActFn actFn;
  if (ActFn::stringToActFn(name, actFn) == 0) return "";
  return "expected one of " + activationNames() + " but found " + inQuotes(name);
}

std::string whyNoScale(const std::string& text) {
  float value = 0;
  const bool isNumber = readNumber(text, value);
  if (isNumber && std::isfinite(value) && value > 0) return "";
  return "expected a number above 0 but found " + inQuotes(text);
}

}  // namespace

Option addScaleOption(CommandLine& command, const std::string& name, RandomInit& init) {
  return command.add(name, init.scale, "Standard deviation of the random weights")
      .check(whyNoScale)
      .type("S")
      .showDefault();
}

Option addSeedOption(CommandLine& command, RandomInit& init) {
  return command.add("--seed", init.seed, "Seed of the random weights").type("N");
}

Option addActFnOption(CommandLine& command, const std::string& option, std::string& name,
                      const std::string& description) {
  return command.add(option, name, description + ": " + activationNames())
      .check(whyNoActFn)
      .type("NAME");
}

void applySeed(const RandomInit& init) {
  if (init.seed) NNLayer::seedRandom(*init.seed);
}

ActFn::ActFn actFnOf(const std::string& name) {
  ActFn::ActFn actFn;
  if (ActFn::stringToActFn(name, actFn) != 0) throw UsageError(whyNoActFn(name));
  return actFn;
}

void setActFnOfHiddenLayers(MultiLayerNNModel& model, ActFn::ActFn actFn) {
  for (std::size_t i = 0; i + 1 < model.layers.size(); ++i) model.layers[i]->actFn = actFn;
}

}  // namespace mlnn
