// NNLayer — one fully connected layer: a weight matrix, a bias or the vectors of a
// batch normalisation, and an activation function.
//
// A plain layer computes        actFn(weights * x + bias),
// a batch-norm layer computes   actFn(gamma_inf .* (weights * x) + beta_inf).
//
// A value type: every layer owns its arrays, a copy gets arrays of its own.
// Thread-safety: as for a plain struct; the random source of the initialising
// constructor is shared by all layers of the process and not guarded.
#pragma once

#include <Eigen/Core>
#include <cstdint>

#include "features/EigenBorder.h"
#include "features/Export.h"
#include "layers/ActFn.h"

class MLNN_EXPORT NNLayer {
 public:
  // The arrays that a layer uses have one entry for each output unit: `bias` in a plain
  // layer, the other four vectors in a batch-norm layer. What it does not use is either
  // empty or has one entry for each unit too, as after folding.
  Eigen::VectorXf bias;       // outputs
  Eigen::MatrixXf weights;    // outputs x inputs, column-major
  Eigen::VectorXf gamma;      // outputs; learned scale
  Eigen::VectorXf beta;       // outputs; learned shift
  Eigen::VectorXf gamma_inf;  // outputs; scale at inference time
  Eigen::VectorXf beta_inf;   // outputs; shift at inference time
  ActFn::ActFn actFn;         // follows the affine part
  bool isBatchNorm;           // decides which arrays count

  // An empty plain layer: every array has size 0.
  NNLayer();

  // A linear layer with every value 0. `bias` has numOutputs entries, and so have the
  // four batch-norm vectors when batchNorm is true; else they are empty.
  // REQUIRES: numInputs and numOutputs are not negative.
  NNLayer(int numInputs, int numOutputs, bool batchNorm);

  // The same shapes with weights drawn from a normal distribution with mean 0 and
  // standard deviation initScale. `bias` is 0. In a batch-norm layer `gamma` is 1, and
  // `beta`, `gamma_inf` and `beta_inf` are 0: the inference values are filled after training.
  // REQUIRES: numInputs and numOutputs are not negative.
  NNLayer(int numInputs, int numOutputs, float initScale, bool batchNorm);

  // Take over all eight fields; a layer that was moved from has arrays of size 0.
  NNLayer(const NNLayer& other);
  NNLayer(NNLayer&& other) noexcept;
  ~NNLayer();

  // Copies all eight fields; the target may have any shape before.
  // On std::bad_alloc: each array holds either what it held or what `other` holds.
  NNLayer& operator=(const NNLayer& other);
  NNLayer& operator=(NNLayer&& other) noexcept;

  // Restarts the random source that the initialising constructor draws from. The
  // process starts with a fixed seed, so runs repeat unless a program asks otherwise.
  static void seedRandom(uint32_t seed);

  // Adds the other layer's parameters element by element: `weights` and `bias`, and in
  // batch-norm layers the four vectors too.
  // Prints: an error line when the shapes of `weights`, the kinds, or the lengths of
  // vectors that would be added differ (tested in this order); then nothing changes.
  NNLayer& operator+=(const NNLayer& other);

  // Multiplies all six arrays by `factor`.
  NNLayer& operator*=(float factor);

  // Sets all six arrays to 0 and keeps their shapes.
  void zeros();

  // The binary record (docs/binary-format.md) holds all eight fields. Where the weights may have
  // few values, the three functions that follow gather them in memory: std::bad_alloc may come
  // out of them, which changes nothing but some bytes at `dst`.

  // Returns the length of the record in bytes, a multiple of 4; -1 when it is more than
  // an int can hold.
  int binarySerializedLength() const;

  // Returns the CRC-32C of the record: any change of one bit, or of a run of up to 32
  // bits, changes it.
  uint32_t checksum() const;

  // Writes the record to `dst` and returns its length.
  // REQUIRES: binarySerializedLength() is not -1, and `dst` has room for as many bytes.
  int serializeBinary(char* dst) const;

  // Reads one record of at most `available` bytes from `src`, replacing all fields.
  // Returns: the number of bytes consumed; -1 when the record is cut short or is not one
  // of a well-formed layer, and then, as on std::bad_alloc, the layer is unchanged.
  int deserializeBinary(const char* src, int available);
};
