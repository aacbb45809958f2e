// Options of the commands that make networks or change them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "layers/ActFn.h"
#include "model/MultiLayerNNModel.h"
#include "tools/shell/CommandLine.h"

namespace mlnn {

// How the random weights of new layers are drawn.
struct RandomInit {
  float scale = 0.1f;            // their standard deviation
  std::optional<uint32_t> seed;  // the library's own without it
};

// Declares options on a command and returns them.
Option addScaleOption(CommandLine& command, const std::string& name, RandomInit& init);
Option addSeedOption(CommandLine& command, RandomInit& init);
Option addActFnOption(CommandLine& command, const std::string& option, std::string& name,
                      const std::string& description);
// `on` is a bool, or an optional one, which has no value without the option.
template <typename Bool>
Option addOnOffOption(CommandLine& command, const std::string& option, Bool& on,
                      const std::string& description) {
  return command
      .addFunction(
          option, [&on](const std::string& word) { on = word == "on"; }, description)
      .oneOf({"on", "off"})
      .type("on|off");
}

// Restarts the random source, where a seed is given.
void applySeed(const RandomInit& init);

// Returns the activation with that keyword.
// Throws: UsageError that lists all of them when there is none.
ActFn::ActFn actFnOf(const std::string& name);

// Sets the activation of all layers but the last, with or without a softmax.
void setActFnOfHiddenLayers(MultiLayerNNModel& model, ActFn::ActFn actFn);

}  // namespace mlnn
