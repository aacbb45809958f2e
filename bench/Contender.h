// Contender — one way to compute a network's outputs, for ForwardPassBench.
//
// This header stays free of Eigen: the peer that is Eigen is compiled twice, with different
// instruction sets and its namespace renamed.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace mlnn {
struct KernelShape;
}

namespace mlnn::bench {

// Begins at a cache line, so that no contender's vectors cross lines that another's do not.
template <typename T>
struct AtCacheLine {
  using value_type = T;
  static constexpr std::align_val_t kLine{64};

  AtCacheLine() = default;
  template <typename Other>
  AtCacheLine(const AtCacheLine<Other>&) {}
  T* allocate(std::size_t count) {
    return static_cast<T*>(::operator new(count * sizeof(T), kLine));
  }
  void deallocate(T* values, std::size_t) { ::operator delete(values, kLine); }
  bool operator==(const AtCacheLine&) const { return true; }
  bool operator!=(const AtCacheLine&) const { return false; }
};

using Floats = std::vector<float, AtCacheLine<float>>;

struct DenseLayer {
  std::size_t rows;
  std::size_t cols;
  Floats weights;  // rows x cols, column-major
  Floats bias;
};

enum class Hidden { kSigmoid, kRelu };

struct Network {
  std::string name;
  Hidden hidden;  // activation of all layers but the last, which has a softmax
  std::vector<DenseLayer> layers;

  std::size_t inputs() const { return layers.front().cols; }
  std::size_t outputs() const { return layers.back().rows; }
};

class Contender {
 public:
  virtual ~Contender() = default;

  // One frame a column, one column behind the other.
  virtual void run(const float* x, float* y) = 0;
};

using ContenderPtr = std::unique_ptr<Contender>;

// Each has weights of its own, so that none finds another's in a cache, and is made for one number
// of frames. Some keep a reference to the network besides.
ContenderPtr makeMlnn(const Network& network, std::size_t frames);
ContenderPtr makeMlnnOfShape(const Network& network, std::size_t frames, const KernelShape& shape);
ContenderPtr makeMlnnWithThreads(const Network& network, std::size_t frames, int threads);
ContenderPtr makeMlnnOf8Bits(const Network& network, std::size_t frames);
ContenderPtr makeMlnnOf4Bits(const Network& network, std::size_t frames);
ContenderPtr makeMlnnInIntegers(const Network& network, std::size_t frames);
ContenderPtr makeMlnnInIntegersOfAnImage(const Network& network, std::size_t frames);
ContenderPtr makeMlnnOfAnImage(const Network& network, std::size_t frames);

// The same, prepared: it keeps floats where that is faster.
ContenderPtr makeMlnnOfAPreparedImage(const Network& network, std::size_t frames);
ContenderPtr makeOpenBlas(const Network& network, std::size_t frames);
ContenderPtr makeOneDnn(const Network& network, std::size_t frames);
ContenderPtr makeOneDnnOf8Bits(const Network& network, std::size_t frames);
ContenderPtr makeXsmm(const Network& network, std::size_t frames);
ContenderPtr makeXsmmBlocked(const Network& network, std::size_t frames);
namespace distribution {
ContenderPtr makeEigen(const Network& network, std::size_t frames);
}
namespace native {
ContenderPtr makeEigen(const Network& network, std::size_t frames);
}

// The network with the weights and biases that are left of it with so many bits.
Network reduced(const Network& network, int bits);

// The network with weights quantised by rows to so many bits.
Network quantized(const Network& network, int bits);

// What the peers that have no activations of their own do after the multiplication: the
// library's own vectorised functions, so that they are not held back by it.
void finishLayer(const Network& network, std::size_t layer, std::size_t frames, float* y);
void applySoftmaxes(std::size_t outputs, std::size_t frames, float* y);

// Processor time of this thread, so that others who take turns on the processor do not count.
double secondsOfThisThread();

// What this processor can do, measured on one thread.
double readBytesPerSecond(std::size_t bytes);
double multiplyAddFlopsPerSecond();

}  // namespace mlnn::bench
