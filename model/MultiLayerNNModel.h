// MultiLayerNNModel — a feed-forward network of fully connected layers, together with
// the features that it expects, its training history and free-form properties.
//
// Owns its layers: they are made with `new` and deleted by the model. No two models share
// anything.
// Thread-safety: as for a standard container. Reading is safe from several threads while
// none changes the model.
// Formats: docs/text-format.md, docs/binary-format.md.
//
// Errors, warnings and information go to the standard error stream, one line each; the
// operations throw nothing of their own. std::bad_alloc from any of them passes through,
// and the model can then still be destroyed, assigned to and loaded.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "features/Export.h"
#include "features/MelDeltasNorm.h"
#include "features/TrainingNotes.h"
#include "inference/NNFwdPassFromFile.h"
#include "layers/NNLayer.h"
#include "model/InferenceModel.h"

class MLNN_EXPORT MultiLayerNNModel : public InferenceModel {
 public:
  // The first layer takes the model's inputs, the last one gives its outputs. After a
  // load that failed an entry may be null: a missing layer. Every operation copes with
  // missing layers; they count as empty ones.
  std::vector<NNLayer*> layers;
  std::vector<float> loss;                   // recorded loss values of training, in order
  std::vector<float> accuracy;               // recorded accuracy values of training, in order
  std::map<std::string, std::string> props;  // name/value properties
  TrainingNotes notes;                       // lines about the model's history
  MelDeltasNorm deltasNorm;                  // normalisation of the input frames
  bool useSoftmax;                           // a softmax is applied to the output layer

  // --- Lifetime ---

  // A model without layers; `useSoftmax` is true.
  MultiLayerNNModel();

  // numSizes - 1 plain layers of zeros: sizes[0] is the number of inputs, sizes[1] the
  // outputs of the first layer, and so on. Fewer than two sizes give no layers.
  // REQUIRES: no size is negative.
  MultiLayerNNModel(int* sizes, int numSizes);

  // Leaves the properties behind: a copy starts without any. clone() copies everything.
  MultiLayerNNModel(const MultiLayerNNModel& other);

  // Takes everything along, properties included, and leaves `other` as a new model.
  MultiLayerNNModel(MultiLayerNNModel&& other) noexcept;

  ~MultiLayerNNModel() override;

  // Leaves the properties behind: this model keeps its own. All else is copied, layers into the
  // layer objects that are there already. `a = b.clone()` takes the properties along.
  // On std::bad_alloc: members and layers are partly the old ones, partly the new.
  void operator=(const MultiLayerNNModel& other);

  // Takes everything along, properties included, and leaves `other` as a new model.
  void operator=(MultiLayerNNModel&& other) noexcept;

  // Returns a copy of everything, properties included.
  MultiLayerNNModel clone() const;

  // --- The layer stack ---

  // Makes the first layer, with random weights (NNLayer has the details).
  // Returns: 0 done; 1 refused because there are layers already.
  int createFirstLayer(int numInputs, int numOutputs, float initScale, bool isBatchNorm);

  // Adds a layer with random weights at the output end and notes it in `notes`.
  // Returns: 0 done; 1 refused because there is no layer to build on.
  int addLayerRndInit(int numOutputs, float initScale, bool isBatchNorm);

  // Removes `count` layers from the output end.
  // Returns: 0 done; 1 refused because there are fewer layers.
  int deleteLayers(unsigned int count);

  // Return the inputs of the first and the outputs of the last layer, 0 without layers.
  int numInputs() const;
  int numOutputs() const override;

  // Returns 0, the code of this model type.
  int type() const override;

  // Returns a new forward pass over this model. The caller owns it; the model must
  // outlive it.
  NNFwdPassFromFile* createFwdPass() override;
  NNFwdPassFromFile* createFwdPass() const;

  // --- Whole-model operations ---

  // Adds the other model's layers to this model's, one by one. A layer of another shape or
  // kind is reported by NNLayer and left as it is.
  // Prints: an error line when the numbers of layers differ; then nothing changes.
  void operator+=(const MultiLayerNNModel& other);

  // Multiplies all parameters of all layers by `factor`.
  void operator*=(float factor);

  // Sets all parameters of all layers to 0.
  void zeros();

  // Sets the activation of all layers; under softmax the output layer gets code 0 instead.
  void setActFn(ActFn::ActFn fn);

  // Sets `useSoftmax`. Switching it on gives the output layer activation code 0; switching
  // it off leaves that as it is.
  void setSoftmax(bool on);

  // Returns the value of a property, or "" when there is none of that name.
  std::string getProp(const std::string& key) const;

  // Sets a property, adding or replacing it.
  // Prints: an information line.
  void setProp(const std::string& key, const std::string& value);

  // Turns batch-norm layers into plain layers that compute the same: each row of `weights`
  // is multiplied by its `gamma_inf`, `bias` becomes `beta_inf`. The four batch-norm
  // vectors stay.
  // Returns: 0 done; 1 stopped at a layer whose `gamma_inf` sums to zero.
  // On failure: the layers before that one are folded, it and the later ones untouched.
  // Prints: a warning for each layer that is plain already, an error line on failure.
  int convBatchNorm();

  // Snaps all weights and biases to one grid of 2^bits steps from the smallest to the
  // largest of them, always downwards. Values that are not numbers have no effect on the
  // range. docs/numerics.md gives the arithmetic, which is the same to the bit everywhere.
  // Prints: the range; or, when `bits` is not 0 to 31, an error line, and nothing changes.
  void retainPrecisionBits(int bits);

  // --- Descriptions ---

  // Returns the shape as in "inputs 360 x 512 bn 512 x 40 output classes".
  std::string debug_description() const override;

  // Returns the widths as in "360,512,512,40"; "" without layers.
  std::string description() const;

  // --- Text format ---

  // Writes the model. Values follow the stream's own formatting, six digits unless the
  // caller sets a precision; with 9, every float reads back exactly.
  // Returns: 0, always; write errors show in the stream's state.
  int serializeAscii(std::ostream& out) const;

  // Reads a model of version 1 or 2 into this one. Layers are replaced, notes and
  // properties added; curves, normalisation and softmax change where the file sets them.
  // Returns: 0 done; 1 refused, after an error line.
  // On failure: the model is left as far as reading got; the stack may hold missing layers.
  int deserializeAscii(std::istream& in);

  // --- Binary format ---

  // Returns the length of the image in bytes; -1, after an error line, when it is more
  // than an int can hold.
  int binarySerializedLength() const;

  // Returns the number of layers plus the sum of their checksums, modulo 2^32.
  uint32_t checksum() const;

  // Writes the image to `buf` and returns its length, or -1 when binarySerializedLength()
  // does; then nothing is written.
  // REQUIRES: `buf` has room for binarySerializedLength() bytes.
  // Only an image whose two normalisation arrays hold 120 values can be read again.
  int serializeBinary(char* buf) const;

  // Reads an image of `len` bytes: the feature description, the normalisation and the
  // layers are replaced, all else is kept.
  // Returns: the number of bytes consumed, which a caller compares with `len`; -1 refused,
  // after an error line unless `len` is below 8.
  // On failure: the model is left as far as reading got.
  int deserializeBinary(const char* buf, unsigned int len);

  // --- Loading either format ---

  // Reads a model that starts at the stream's first byte. "MLNN" at the start means a
  // binary image that fills the stream, anything else a text model.
  // REQUIRES: the stream can seek.
  // Returns: 0 done; 1 refused, after an error line.
  int deserialize(std::istream& in);

  // Opens the file and reads it the same way, whatever the program's global locale is.
  int deserialize(const char* fileName);

 private:
  void swap(MultiLayerNNModel& other) noexcept;
};
