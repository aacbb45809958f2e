// SweepReport — what a sweep over widths found out, as a table and as JSON.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <vector>

#include "analysis/PrecisionSweep.h"

namespace mlnn {

struct SweepFindings {
  std::size_t recordings = 0;
  std::size_t frames = 0;
  bool isPosterior = false;                    // whether the outputs are
  double keep = 0;                             // the share of best classes that is asked for
  std::optional<std::size_t> rightRecordings;  // of the model as it is, where labels are known
  std::vector<PrecisionLoss> losses;
  std::optional<int> smallestWidth;    // that keeps enough decisions
  std::optional<int> accuracyFallsAt;  // the largest width with fewer right recordings

  // Adds what the next width loses.
  // REQUIRES: all but the last three members are set; widths come from the smallest on.
  void add(const PrecisionLoss& loss);
};

void printSweep(const SweepFindings& found, std::ostream& out);

nlohmann::ordered_json sweepJson(const SweepFindings& found);

}  // namespace mlnn
