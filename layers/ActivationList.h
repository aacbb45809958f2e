// The one list of the activations. All that there is one of for each of them follows from it: the
// keywords, the loops of the kernels, the functions for single values.
#pragma once

#include "layers/ActFn.h"

// Calls DO(name, formula) for each activation, in the order of the codes: the name of its
// enumerator, which is its keyword too, and of its function in
// inference/kernels/ActivationFormulas-inl.h.
#define MLNN_FOR_EACH_ACTIVATION(DO) \
  DO(linear, linear)                 \
  DO(sigmoid, sigmoid)               \
  DO(tanh, tanh)                     \
  DO(relu, relu)                     \
  DO(leaky_relu, leakyRelu)          \
  DO(elu, elu)                       \
  DO(softplus, softplus)             \
  DO(silu, silu)
