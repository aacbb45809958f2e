// DevicePass — runs a model's binary image, where it lies, on frames that come one by one, in
// memory that the caller supplies: for devices without a heap. With MLNN_BARE_METAL it is all of
// the library (docs/small-devices.md).
//
// It takes nothing from the heap, has no variable of a thread, writes to no stream and throws
// nothing. Needs no Eigen in the program.
#pragma once

#include <cstddef>
#include <cstdint>

#include "features/Export.h"
#include "inference/DeviceMemory.h"
#include "inference/ImageChecksum.h"
#include "inference/WideInputs.h"

namespace mlnn {

// Gives the same bits as a ContextWindow and an ImageFwdPass of the same image. A frame is as wide
// as makes an input vector of the image's window.
//
// Images of three kinds are refused that an ImageFwdPass takes: at an address that is no multiple
// of 4; with weights as codes of a table, which would have to be unpacked (`mlnn quantize` makes
// others than `mlnn reduce` does); without layers, or with layers that do not fit each other. And
// it takes some that an ImageFwdPass refuses: whole ones with the right checksum, whose weights are
// in another form than the writer would have chosen, which takes memory to find out.
//
// Lifetime: image and memory must stay where they are, and the image unchanged, while the pass is
// in use. Copies of an object share the memory, so that only one may be used.
// Thread-safety: one object serves one thread at a time.
class MLNN_EXPORT DevicePass {
 public:
  // A pass without an image, in floats until setIntegers.
  constexpr DevicePass() : DevicePass(&DevicePass::runFloats) {}

  // Returns a pass without an image that is in integers from the start (setIntegers). A program
  // that makes no others takes no loops over floats along.
  static DevicePass inIntegers(WideInputs wideInputs = WideInputs::kNone);

  // Returns the bytes of memory that open asks for; 0 where it refuses the image.
  // Prints: an error line for each reason to refuse it (layers/Messages.h).
  static uint64_t memoryBytes(const void* image, std::size_t length);

  // Takes an image of `length` bytes, and `memoryLength` bytes of memory at a multiple of
  // kDeviceAlignment.
  // Returns: 0 done; 1 refused.
  // Prints: when refused, an error line for each reason.
  // On failure: there is no image.
  int open(const void* image, std::size_t length, void* memory, std::size_t memoryLength,
           ImageChecksum checksum = ImageChecksum::kVerified);

  // All are 0 without an image.
  int frameLen() const { return frameLen_; }      // values in a frame
  int delay() const { return right_; }            // frames that results wait for
  int numInputs() const { return numInputs_; }    // values in an input vector
  int numOutputs() const { return numOutputs_; }  // values in its results

  // Says whether a softmax goes over the last layer's results, which an image does not hold. It
  // does unless this says otherwise; another image does not change it.
  void setSoftmax(bool on) { endsInSoftmax_ = on; }

  // Lets layers that were quantised by rows be computed in integers: results are those of an
  // IntegerFwdPass of the image, to the bit, and the same on every processor. It takes no more
  // memory. Another image does not change it. To be called between recordings.
  void setIntegers(WideInputs wideInputs = WideInputs::kNone);

  // Takes the next frame of a recording (frameLen() values). Returns the results of the frame that
  // is due (numOutputs() values), until the next call; null until delay() further frames have come.
  // REQUIRES, here and below: there is an image.
  const float* push(const float* frame);

  // After the last frame: returns the next of the results that are still due; null when none is
  // left, and then starts over for another recording.
  const float* finish();

  // Forgets the frames so far and starts another recording.
  void reset() { received_ = emitted_ = 0; }

  // Returns the results for an input vector (numInputs() values), until the next call. Does not
  // touch what push has gathered.
  const float* evaluate(const float* inputs);

 private:
  class Reader;
  using Run = const float* (DevicePass::*)(const float* inputs);

  explicit constexpr DevicePass(Run run) : run_(run) {}
  const float* emit();
  void place(void* memory);
  const float* runFloats(const float* inputs);
  const float* runIntegers(const float* inputs);

  const char* image_ = nullptr;
  const char* end_ = nullptr;  // of the image
  int numLayers_ = 0;
  int numInputs_ = 0;
  int numOutputs_ = 0;
  int widest_ = 0;  // layer's outputs
  int frameLen_ = 0;
  int left_ = 0;
  int right_ = 0;
  bool endsInSoftmax_ = true;
  WideInputs wideInputs_ = WideInputs::kNone;
  Run run_;
  const float* minvals_ = nullptr;  // in the image; null where nothing is normalised
  const float* normvals_ = nullptr;
  float* ring_ = nullptr;  // the parts of the memory
  float* input_ = nullptr;
  float* between_[2] = {};
  float* scratch_ = nullptr;
  int64_t received_ = 0;  // frames
  int64_t emitted_ = 0;   // results
};

}  // namespace mlnn
