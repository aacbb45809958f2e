// Times the forward pass over one frame, a call each, for bench/one_frame.py, which times the same
// from Python. Usage: OneFrame MODEL CALLS ROUNDS      prints the nanoseconds of a call, one line a
// round
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "inference/NNFwdPassFromFile.h"
#include "layers/Messages.h"
#include "model/ModelFile.h"
#include "model/MultiLayerNNModel.h"

namespace {

// Returns the nanoseconds of a call, the mean of so many.
double nanosecondsOf(NNFwdPassFromFile& pass, const std::vector<float>& frame,
                     std::vector<float>& out, int calls) {
  const mlnn::InputFrames inputs(frame.data(), static_cast<Eigen::Index>(frame.size()), 1);
  const mlnn::OutputFrames outputs(out.data(), static_cast<Eigen::Index>(out.size()), 1);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < calls; ++i) {
    if (pass.evaluate(inputs, outputs) != 0) std::abort();
  }
  const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - start;
  return taken.count() / calls;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  mlnn::setMessageSink(mlnn::printProblems, nullptr);
  const std::unique_ptr<MultiLayerNNModel> model = mlnn::openModel(argv[1]);
  if (!model) return 1;
  NNFwdPassFromFile pass(*model);
  const std::vector<float> frame(static_cast<std::size_t>(model->numInputs()), 0.5f);
  std::vector<float> out(static_cast<std::size_t>(model->numOutputs()));
  const int calls = std::atoi(argv[2]);
  nanosecondsOf(pass, frame, out, calls);
  for (int round = std::atoi(argv[3]); round > 0; --round) {
    std::printf("%.1f\n", nanosecondsOf(pass, frame, out, calls));
  }
  return 0;
}
