// What a program outside this tree does with the library: makes a model, saves it, loads it
// again and runs it. Ends with 0 when the results are right.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>

#include "features/Version.h"
#include "model/MultiLayerNNModel.h"

namespace {

// Two inputs, two classes. The second class starts ln 3 ahead of the first. The weights take
// another shape on the way, so memory that the library made is freed here, and the other way
// round.
MultiLayerNNModel makeModel() {
  int sizes[] = {5, 2};
  MultiLayerNNModel model(sizes, 2);
  model.layers[0]->weights = Eigen::MatrixXf::Identity(2, 2);
  model.layers[0]->bias = Eigen::Vector2f(0.0f, std::log(3.0f));
  return model;
}

bool save(const MultiLayerNNModel& model, const char* fileName) {
  std::ofstream out(fileName, std::ios::binary);
  out.precision(std::numeric_limits<float>::max_digits10);
  return model.serializeAscii(out) == 0 && out.flush();
}

bool givesQuarterAndThreeQuarters(MultiLayerNNModel& model) {
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  Eigen::MatrixXf posteriors;
  if (pass->evaluate(Eigen::MatrixXf::Zero(2, 1), posteriors) != 0) return false;
  std::printf("%.6f %.6f\n", posteriors(0, 0), posteriors(1, 0));
  return posteriors.rows() == 2 && posteriors.cols() == 1 &&
         std::abs(posteriors(0, 0) - 0.25f) < 1e-6f && std::abs(posteriors(1, 0) - 0.75f) < 1e-6f;
}

}  // namespace

int main() {
  if (std::strcmp(mlnn::version(), MLNN_VERSION_STRING) != 0) return 1;
  const char* const fileName = "consumer-model.txt";
  if (!save(makeModel(), fileName)) return 1;
  MultiLayerNNModel model;
  if (model.deserialize(fileName) != 0) return 1;
  return givesQuarterAndThreeQuarters(model) ? 0 : 1;
}
