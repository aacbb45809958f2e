#include <iostream>
#include <memory>

#include "model/MultiLayerNNModel.h"

int main(int argc, char** argv) {
  MultiLayerNNModel model;
  if (argc < 2 || model.deserialize(argv[1]) != 0) return 1;  // the reason is on stderr
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  const Eigen::MatrixXf inputs = Eigen::MatrixXf::Zero(pass->numInputs(), 1);  // a frame a column
  Eigen::MatrixXf outputs;
  if (pass->evaluate(inputs, outputs) != 0) return 1;
  std::cout << outputs.transpose() << "\n";
}
