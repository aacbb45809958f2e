// RecordingFindings — what a network makes of recordings, for a page.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "analysis/CellMap.h"
#include "analysis/Decisions.h"
#include "analysis/UnitActivity.h"
#include "inference/RecordingInputs.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

struct RecordingFinding {
  std::string name;  // as it was given
  Eigen::Index frames = 0;
  std::optional<Eigen::Index> known;  // its class
  Decision decision;                  // of a network with a softmax
  std::optional<CellMap> outputs;     // classes x frames, where it is among those to be shown

  bool isWrong() const { return known && decision.best != *known; }
};

class RecordingFindings {
 public:
  // How many are shown as pictures: those that are decided wrongly first, then the least sure.
  static constexpr std::size_t kMostPictures = 40;

  // REQUIRES: the model outlives this object and does not change.
  explicit RecordingFindings(const MultiLayerNNModel& model);

  // Runs the model over a recording. Returns: whether it can be run; if not, after the forward
  // pass's own message, and nothing is taken in.
  // REQUIRES: the inputs were made for frames of the model as wide as these.
  bool add(const std::string& name, const Eigen::MatrixXf& frames, const RecordingInputs& inputs,
           std::optional<Eigen::Index> known);

  const std::vector<RecordingFinding>& recordings() const { return recordings_; }
  const std::vector<std::string>& labels() const { return labels_; }
  const Confusion& confusion() const { return confusion_; }  // of those whose class is known
  const UnitActivity& activity() const { return activity_; }
  bool arePosteriors() const { return model_.useSoftmax; }
  std::size_t frames() const { return activity_.frames(); }

  // The numbers of recordings, those that are wrong or less sure first.
  std::vector<std::size_t> bySureness() const;

  // The numbers of recordings, those first whose decision settled last.
  std::vector<std::size_t> bySlowness() const;

 private:
  bool isSurer(const RecordingFinding& a, const RecordingFinding& b) const;
  void leaveOutPicture();

  const MultiLayerNNModel& model_;
  std::vector<std::string> labels_;
  std::vector<RecordingFinding> recordings_;
  std::vector<std::size_t> pictures_;  // numbers of recordings that have one
  Confusion confusion_;
  UnitActivity activity_;
};

}  // namespace mlnn
