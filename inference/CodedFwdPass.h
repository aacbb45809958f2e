// CodedFwdPass — the forward pass of a MultiLayerNNModel over weights of few bits: a quarter of
// the memory (an eighth for up to 4 bits), and faster where memory is what limits.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <memory>

#include "features/Export.h"
#include "features/Watch.h"
#include "inference/FwdPass.h"
#include "inference/PassMemory.h"

class MultiLayerNNModel;

namespace mlnn {

class CodedLayers;

// Which layers are held as codes: those that run faster so, which are large ones; or all for which
// it saves half of the memory or more.
enum class CodesFor { kSpeed, kMemory };

// Gives to the bit what NNFwdPassFromFile gives for the model after retainPrecisionBits: the
// weights have the same grid and lie on the same points, and the sums have the same order.
//
// Holds its own copy of what it needs; it does not follow later changes of the model, which may
// even be gone. A layer's weights take one byte each, or half a byte for up to 4 bits, in panels
// of 64 outputs of which the last is filled up. Layers where codes would not halve the memory or
// cannot say what the grid made of the weights stay float, and for the sake of speed so do those
// of less than 2^18 weights, which floats are quick to read of; weightBytes() counts what there is.
//
// Thread-safety: one object serves one thread at a time; another() makes one for each further
// thread.
class MLNN_EXPORT CodedFwdPass : public FwdPass {
 public:
  static constexpr int kMinBits = 1;  // of a code
  static constexpr int kMaxBits = 8;  // of a code

  // Makes a forward pass over codes of `bits` bits. The model stays as it is.
  // Returns: null, after an error line, when `bits` is not kMinBits to kMaxBits, or the model
  // has no layers or has one that does not fit.
  static std::unique_ptr<CodedFwdPass> create(const MultiLayerNNModel& model, int bits,
                                              CodesFor codesFor = CodesFor::kSpeed);

  // The same, which a watch can stop: it is called with 0 steps.
  static std::unique_ptr<CodedFwdPass> create(const MultiLayerNNModel& model, int bits,
                                              CodesFor codesFor, const Watch& watch);

  ~CodedFwdPass() override;

  // Makes another pass over the same codes, for another thread: it gives the same bits, and takes
  // working memory only. Either may be gone before the other.
  // Thread-safety: any thread may call it at any time, also while this pass evaluates.
  std::unique_ptr<CodedFwdPass> another() const;

  int numInputs() const override;
  int numOutputs() const override;

  // Refuses inputs of another width.
  // After a call with as many frames, or more, it allocates nothing but the memory of `outputs`,
  // where their shape changes; into the caller's memory, nothing at all.
  int evaluate(const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs) override;
  using FwdPass::evaluate;
  void setThreads(std::shared_ptr<Threads> threads) override;

  // Returns the layers that are held as codes.
  std::size_t numCodedLayers() const;

  // Returns the bytes of what takes the place of the model's arrays, which all passes that share
  // it have once.
  std::size_t weightBytes() const;

  // Returns the bytes that it keeps besides them, for itself alone, once it has evaluated up to
  // `frames` frames a call, itself included, into outputs that are apart from the inputs.
  std::size_t workingBytes(Eigen::Index frames) const;

 private:
  int evaluateFrames(const InputFrames& inputs, const OutputFrames& outputs) override;

  explicit CodedFwdPass(std::shared_ptr<const CodedLayers> layers);

  std::shared_ptr<const CodedLayers> layers_;
  PassMemory memory_;
};

}  // namespace mlnn
