// ImageFwdPass — the forward pass of a model's binary image, run from where the image lies: in
// memory, in a mapped file, or in an array in ROM. No model is built and no weights are copied.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <memory>
#include <vector>

#include "features/DbnFeatureDescription.h"
#include "features/Export.h"
#include "features/MelDeltasNorm.h"
#include "inference/FwdPass.h"
#include "inference/ImageChecksum.h"
#include "inference/NNFwdPassFromFile.h"

namespace mlnn {

// Gives the same bits as the NNFwdPassFromFile of the model that the image holds.
//
// An image is best at an address that is a multiple of 4, as memory from the system, a mapped
// file or the array that `mlnn convert --to c-array` writes is. One frame meets weights that are
// stored as codes where they lie, at any address: nothing is unpacked, and memory is that of the
// widest layer's outputs three times at most. Floats at another address, and codes that meet
// several frames, are unpacked some rows of a layer at a time, at most 256 KiB or 96 rows; the
// weights of a coded layer are never all in memory as floats.
//
// Lifetime: the image must stay where it is, and unchanged, while the pass is in use.
// Thread-safety: one object serves one thread at a time; several objects over one image may run
// in several threads.
class MLNN_EXPORT ImageFwdPass : public FwdPass {
 public:
  // A pass without an image: it has no inputs and refuses to evaluate.
  ImageFwdPass();
  ~ImageFwdPass() override;
  ImageFwdPass(ImageFwdPass&& other) noexcept;
  ImageFwdPass& operator=(ImageFwdPass&& other) noexcept;

  // Checks the image and takes it for further evaluations. It must be the whole memory: bytes
  // behind the last layer are refused.
  // Returns: 0 done; 1 refused.
  // Prints: the lines that MultiLayerNNModel::deserialize prints for an image with these bytes; an
  // error line for less than 8 bytes, which that refuses without a word.
  // On failure, and on std::bad_alloc: as if newly made, but for the softmax.
  int open(const void* image, std::size_t length,
           ImageChecksum checksum = ImageChecksum::kVerified);

  // Opens an image by the name of its file, which is mapped and not read: what no evaluation
  // touches is never in memory, and several passes and processes share what is. The pass keeps the
  // mapping. The file may be renamed, removed or replaced meanwhile, as when a new model takes its
  // name; its bytes must stay as they were checked. Where another process writes into it, results
  // may be any; where one makes it shorter, whoever touches the bytes behind its new end gets
  // SIGBUS from the system, for which the library installs no handler, so that the process ends
  // unless it has its own. Where that can happen, read the file into memory and give that to open.
  // Returns: 0 done; 1 refused.
  // Prints: the lines of open, or an error line that tells why the file cannot be mapped: only
  // regular files can.
  // On failure, and on std::bad_alloc: as if newly made, but for the softmax.
  int openFile(const char* fileName, ImageChecksum checksum = ImageChecksum::kVerified);

  // Makes floats of codes, once for all further evaluations, where one frame meets floats sooner:
  // of codes of a table, and of those by rows in layers that stay in the second-level cache as
  // floats. Takes layers in their order, and leaves those out that would need more than `mostBytes`
  // bytes together. The floats are the pass's own; results are the same to the bit.
  // Returns: the bytes that they take, with those of earlier calls.
  // On std::bad_alloc: some may have been made. Another image forgets them.
  std::size_t prepare(std::size_t mostBytes);

  // Says whether a softmax goes over the last layer's results, which an image does not hold. It
  // does unless this says otherwise; another image does not change it.
  void setSoftmax(bool on);

  // The image's feature description and normalisation, for a ContextWindow.
  const DbnFeatureDescription& featureDesc() const;
  const MelDeltasNorm& deltasNorm() const;

  // The model's inputs, and the outputs of each of its layers in turn; empty without layers.
  std::vector<int> widths() const;

  int numInputs() const override;
  int numOutputs() const override;

  // Computes as NNFwdPassFromFile::evaluate does, and refuses the same; no layer that open took
  // breaks its own invariants.
  int evaluate(const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs) override;
  using FwdPass::evaluate;
  void setThreads(std::shared_ptr<Threads> threads) override;

  // The same, and hands out what every layer computed.
  // On failure: `outputs` and `layers` are unchanged.
  int evaluateLayers(const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs,
                     std::vector<LayerResult>& layers);

 private:
  friend class IntegerFwdPass;
  class Layers;

  void close();
  int evaluateFrames(const InputFrames& inputs, const OutputFrames& outputs) override;
  bool canEvaluate(const char* operation) const;
  int run(const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs,
          std::vector<LayerResult>* trace);

  DbnFeatureDescription featureDesc_;
  MelDeltasNorm deltasNorm_;
  bool endsInSoftmax_ = true;
  std::shared_ptr<const void> file_;  // what openFile mapped
  std::unique_ptr<Layers> layers_;    // null without an image
  PassMemory memory_;
};

}  // namespace mlnn
