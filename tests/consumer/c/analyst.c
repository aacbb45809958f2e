/* Asks the analyses, out of an installation, about a file that is cut off. */
#include <mlnn_analysis.h>
#include <stdio.h>
#include <string.h>

static void keep(mlnn_severity severity, const char* text, void* data) {
  if (severity == MLNN_SEVERITY_ERROR) strncpy((char*)data, text, 99);
}

int main(void) {
  static const char file[] = "MultiLayerNNModel_v2\nsoftmax 1\nnum_lay";
  char found[100] = "";
  if (mlnn_check_memory(file, sizeof file - 1, NULL, keep, NULL, found) != MLNN_ERROR_MODEL)
    return 1;
  puts(found);
  return strncmp(found, "line 3, column 1: ", 18) == 0 ? 0 : 1;
}
