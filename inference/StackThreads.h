// StackThreads — what forward passes ask of the threads that they were given. Passes call it by its
// virtual functions alone, so that a program without threads takes none of it along.
// Internal: not installed.
#pragma once

#include <cstddef>

#include "inference/Frames.h"
#include "inference/Threads.h"

namespace mlnn {

class LayerSource;
class IntegerSource;
struct IntegerKernels;
struct IntegerMemory;
struct LayerCall;
struct PassMemory;

class StackThreads : public Threads {
 public:
  // Makes room for evaluate with the same inputs; that allocates nothing then.
  virtual void prepare(const LayerSource& stack, const InputFrames& inputs, PassMemory& memory) = 0;

  // Takes all frames through the stack: some of them in each thread; or, where they are few and the
  // weights many, all of them through some outputs of each layer in each thread.
  // REQUIRES: the inputs do not overlap the outputs.
  virtual void evaluate(const LayerSource& stack, const InputFrames& inputs,
                        const OutputFrames& outputs, PassMemory& memory) = 0;

  // Computes a layer, of which each thread takes some outputs.
  virtual void evaluateLayer(const LayerCall& call, PassMemory& memory) = 0;

  // The same of a stack with integers, of which each thread takes some frames.
  virtual void prepare(const IntegerSource& stack, const IntegerKernels& kernels,
                       const InputFrames& inputs, IntegerMemory& memory) = 0;
  virtual void evaluate(const IntegerSource& stack, const IntegerKernels& kernels,
                        const InputFrames& inputs, const OutputFrames& outputs,
                        IntegerMemory& memory) = 0;
};

// Those that a pass was given: no other class derives from Threads.
inline StackThreads* stackThreads(Threads* threads) { return static_cast<StackThreads*>(threads); }

}  // namespace mlnn
