// Prints tests/golden/integers.csv as a device without a heap computes it: from images in flash, by
// a DevicePass in integers. `check-all cortex-m` compares it with the file.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "examples/device/Board.h"
#include "inference/DevicePass.h"

// Defined in files that `mlnn convert` writes of the models that make_integers.py writes.
#define GOLDEN_ACTIVATIONS(each)                                                             \
  each(linear) each(sigmoid) each(tanh) each(relu) each(leaky_relu) each(elu) each(softplus) \
      each(silu)
#define DECLARE(name)                       \
  extern "C" const uint32_t name##_image[]; \
  extern "C" const std::size_t name##_image_length;
GOLDEN_ACTIVATIONS(DECLARE)

namespace {

using mlnn::WideInputs;

constexpr int kInputs = 70;
constexpr int kWidest = 37;  // outputs of a layer
constexpr int kFrames = 5;

alignas(mlnn::kDeviceAlignment) char memory[mlnn::deviceMemoryBytes(kInputs, kWidest)];

void showHexadecimal(uint32_t number) {
  char digits[9] = {};
  for (int i = 7; i >= 0; --i, number >>= 4) digits[i] = "0123456789abcdef"[number & 15];
  show(digits);
}

// As make_integers.py has them.
void makeInputs(int frame, float* inputs) {
  for (int i = 0; i < kInputs; ++i) {
    inputs[i] = static_cast<float>((53 * i + 17 * frame) % 201 - 100) / 64.0f;
    if (frame == 1) inputs[i] *= 0x1p-99f;
    if (frame == 3) inputs[i] *= 0x1p40f;
  }
  if (frame == 2) inputs[3] = __builtin_inff();
}

void showLine(const char* activation, const char* wide, int frame, const float* outputs,
              int count) {
  const char number[] = {static_cast<char>('0' + frame), '\0'};
  for (const char* text : {activation, ",", wide, ",", number, ","}) show(text);
  for (int i = 0; i < count; ++i) {
    uint32_t bits;
    std::memcpy(&bits, outputs + i, sizeof bits);
    if (i > 0) show(" ");
    showHexadecimal(bits);
  }
  show("\n");
}

// Shows the lines of an image. Returns: whether it can be run.
bool showImage(const char* activation, const uint32_t* image, std::size_t length) {
  const struct {
    const char* name;
    WideInputs value;
  } kinds[] = {
      {"none", WideInputs::kNone}, {"first", WideInputs::kFirst}, {"all", WideInputs::kAll}};
  for (const auto& wide : kinds) {
    auto pass = mlnn::DevicePass::inIntegers(wide.value);
    if (pass.open(image, length, memory, sizeof memory) != 0) return false;
    for (int frame = 0; frame < kFrames; ++frame) {
      float inputs[kInputs];
      makeInputs(frame, inputs);
      showLine(activation, wide.name, frame, pass.evaluate(inputs), pass.numOutputs());
    }
  }
  return true;
}

}  // namespace

int main() {
  show("act_fn,wide_inputs,frame,outputs\n");
#define SHOW(name) \
  if (!showImage(#name, name##_image, name##_image_length)) return 1;
  GOLDEN_ACTIVATIONS(SHOW)
  return 0;
}
