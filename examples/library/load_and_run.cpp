#include <iostream>
#include <memory>

#include "model/ModelFile.h"

int main(int argc, char** argv) {
  if (argc < 2) return 1;
  const std::unique_ptr<MultiLayerNNModel> model = mlnn::openModel(argv[1]);
  if (!model) return 1;  // the reason is on stderr
  const std::unique_ptr<NNFwdPassFromFile> pass(model->createFwdPass());
  const Eigen::MatrixXf inputs = Eigen::MatrixXf::Zero(pass->numInputs(), 1);  // a frame a column
  Eigen::MatrixXf outputs;
  if (pass->evaluate(inputs, outputs) != 0) return 1;
  std::cout << outputs.transpose() << "\n";
}
