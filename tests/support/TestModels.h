// Models and layers for tests: builders that give every value a different, repeatable one,
// and comparisons that say which field differs.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "layers/NNLayer.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn::test {

// Fills an array with values in -1..1 that depend on `seed` alone, none of them 0.
void fillValues(Eigen::Ref<Eigen::MatrixXf> values, uint32_t seed);

// Returns a matrix of such values.
Eigen::MatrixXf someValues(Eigen::Index rows, Eigen::Index cols, uint32_t seed);

// Layers whose arrays hold such values, with activation `sigmoid`: a plain layer; a
// batch-norm layer; a plain layer that still has its four batch-norm vectors, as after folding.
NNLayer plainLayer(int inputs, int outputs, uint32_t seed = 1);
NNLayer batchNormLayer(int inputs, int outputs, uint32_t seed = 1);
NNLayer foldedLayer(int inputs, int outputs, uint32_t seed = 1);

// A plain layer whose weights take `numValues` different values, in turn: as small images hold
// them, when there are enough weights.
NNLayer fewValuesLayer(int inputs, int outputs, int numValues);

// A plain layer without a bias, with too many different weights for anything but floats; only
// the first few hundred are set, so that a layer of any size takes little memory.
NNLayer untouchedLayer(int outputs, int inputs);

// Makes a model of copies of the given layers.
MultiLayerNNModel modelOf(const std::vector<NNLayer>& layers);

// A model in which every member differs from that of a new one: three layers (4 -> 3 plain,
// 3 -> 5 batch norm, 5 -> 2 folded), a feature description that implies no length, both
// normalisation arrays, curves, notes, properties, softmax off.
MultiLayerNNModel fullModel();

// The three layers of fullModel and nothing else but the two normalisation arrays, which an
// image needs.
MultiLayerNNModel imageModel();

// A line of a text model that gives the array "minvals" or "normvals" of the normalisation: the
// first value, and all others alike.
std::string normalisationLine(const std::string& array, const std::string& first,
                              const std::string& others);

// Whether two arrays have the same shape and the same bits, NaN payloads and zero signs
// included.
::testing::AssertionResult sameBits(const Eigen::Ref<const Eigen::MatrixXf>& a,
                                    const Eigen::Ref<const Eigen::MatrixXf>& b);

// Whether all eight fields of two layers are equal to the bit.
::testing::AssertionResult sameLayer(const NNLayer& a, const NNLayer& b);

// Whether two stacks are equal layer by layer; missing layers are equal to missing layers only.
::testing::AssertionResult sameLayers(const MultiLayerNNModel& a, const MultiLayerNNModel& b);

// Whether the 20 bytes of two descriptions are the same.
::testing::AssertionResult sameDescription(const DbnFeatureDescription& a,
                                           const DbnFeatureDescription& b);

// Whether everything but the properties is equal.
::testing::AssertionResult sameButProps(const MultiLayerNNModel& a, const MultiLayerNNModel& b);

// Whether everything is equal.
::testing::AssertionResult sameModel(const MultiLayerNNModel& a, const MultiLayerNNModel& b);

}  // namespace mlnn::test
