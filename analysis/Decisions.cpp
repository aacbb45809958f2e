#include "analysis/Decisions.h"

#include <algorithm>
#include <cmath>

#include "inference/Evaluation.h"

namespace mlnn {
namespace {

using Eigen::Index;

// The class with the largest sum but one; -1 where there is one class.
Index secondBest(const Eigen::VectorXd& sums, Index best) {
  Index second = -1;
  for (Index i = 0; i < sums.size(); ++i) {
    if (i != best && (second < 0 || sums[i] > sums[second])) second = i;
  }
  return second;
}

// Adds up what sumOfLogs does, frame by frame.
Index settledAt(const Eigen::MatrixXf& posteriors, Index best) {
  Eigen::VectorXd sums = Eigen::VectorXd::Zero(posteriors.rows());
  Index settled = 0;
  for (Index f = 0; f < posteriors.cols(); ++f) {
    sums += sumOfLogs(posteriors.col(f));
    Index now = 0;
    sums.maxCoeff(&now);
    if (now != best) settled = f + 1;
  }
  return std::min(settled, posteriors.cols() - 1);
}

}  // namespace

Decision decisionOf(const Eigen::MatrixXf& posteriors) {
  Decision decision;
  decision.best = recordingClass(posteriors);
  if (decision.best < 0) return decision;
  const Eigen::VectorXd sums = sumOfLogs(posteriors);
  const auto frames = static_cast<double>(posteriors.cols());
  decision.second = secondBest(sums, decision.best);
  if (decision.second >= 0) {
    decision.margin = (sums[decision.best] - sums[decision.second]) / frames;
  }
  decision.meanPosterior = posteriors.row(decision.best).cast<double>().mean();
  decision.settledAt = settledAt(posteriors, decision.best);
  return decision;
}

void Confusion::add(Index known, Index decided) {
  ++counts_[{known, decided}];
  ++recordings_;
  if (known == decided) ++right_;
}

std::size_t Confusion::of(Index known, Index decided) const {
  const auto found = counts_.find({known, decided});
  return found == counts_.end() ? 0 : found->second;
}

}  // namespace mlnn
