// Decisions — how sure a network is of what a recording is, when it knows, and what it takes for
// what.
//
// Internal: not installed.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <map>
#include <utility>

namespace mlnn {

// What the posteriors of all frames say of a recording.
struct Decision {
  Eigen::Index best = -1;    // class; -1 where any posterior is not a number
  Eigen::Index second = -1;  // the next best class; -1 where there is none

  // Beside the next best class: the difference of the sums of logarithms, for a frame. 0 where
  // there is none.
  double margin = 0;
  double meanPosterior = 0;  // of the best class, over all frames

  // The first frame from which on the sum over the frames so far says the same as all frames do.
  Eigen::Index settledAt = 0;
};

// `posteriors` are classes x frames, at least one of each.
Decision decisionOf(const Eigen::MatrixXf& posteriors);

// What recordings are, against what they were taken for.
class Confusion {
 public:
  using Pair = std::pair<Eigen::Index, Eigen::Index>;  // known class, decided class

  // `decided` is -1 where there is no decision.
  void add(Eigen::Index known, Eigen::Index decided);

  std::size_t recordings() const { return recordings_; }
  std::size_t right() const { return right_; }
  std::size_t of(Eigen::Index known, Eigen::Index decided) const;

  // Those that occur, in their order.
  const std::map<Pair, std::size_t>& counts() const { return counts_; }

 private:
  std::map<Pair, std::size_t> counts_;
  std::size_t recordings_ = 0;
  std::size_t right_ = 0;
};

}  // namespace mlnn
