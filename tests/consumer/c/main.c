/* What a C program outside this tree does with the library. Ends with 0 when the results are right. */
#include <mlnn.h>
#include <stdio.h>
#include <string.h>

/* Two inputs that become the two outputs, the second 1 more than it was. */
static const char kModel[] =
    "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nlayer 1 size 2 3\nact_fn linear\n"
    "0 1 0\n1 0 1\n";

int main(void) {
  const float inputs[] = {3, 4};
  float outputs[2];
  mlnn_model model;
  mlnn_pass pass;
  if (strcmp(mlnn_version(), MLNN_VERSION_STRING) != 0) return 1;
  if (mlnn_model_open_memory(kModel, sizeof kModel - 1, NULL, &model) != MLNN_OK) return 1;
  if (mlnn_pass_create(model, &pass) != MLNN_OK) return 1;
  if (mlnn_pass_run(pass, 1, inputs, 2, 2, outputs, 2, 2) != MLNN_OK) return 1;
  printf("%g %g\n", outputs[0], outputs[1]);
  mlnn_pass_close(pass);
  return mlnn_model_close(model) == MLNN_OK && outputs[0] == 3 && outputs[1] == 5 ? 0 : 1;
}
