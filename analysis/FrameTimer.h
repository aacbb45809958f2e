// timeFrames — measures on this machine how long a model takes for a frame.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "features/Export.h"
#include "features/Watch.h"
#include "inference/FwdPass.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Processor time for one frame, in seconds, over all measurements.
struct FrameTime {
  // Of the measurements.
  double median = 0;
  double fastest = 0;
  double slowest = 0;

  std::size_t frames = 0;  // how many were evaluated
};

// Runs the model over random frames, one a call as when frames arrive one by one, for about
// `seconds` of processor time after a warm-up. What counts is the time that the processor
// spends here, so other programs that run at the same time disturb little; on Windows, the time
// that passes.
// `watch` is told of kTimingSteps steps in all.
// Returns: nothing, with `whyNot` set, when the model has no outputs or, after the forward pass's
// own message, cannot be run.
MLNN_EXPORT std::optional<FrameTime> timeFrames(MultiLayerNNModel& model, double seconds,
                                                std::string& whyNot, const Watch& watch = {});

// The same of a forward pass.
MLNN_EXPORT std::optional<FrameTime> timeFrames(FwdPass& pass, double seconds, std::string& whyNot,
                                                const Watch& watch = {});

// How many steps of its time it tells a watch of.
inline constexpr std::size_t kTimingSteps = 100;

}  // namespace mlnn
