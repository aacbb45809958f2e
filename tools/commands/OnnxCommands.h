// addExportOnnxCommand, addImportOnnxCommand — the commands `mlnn export-onnx` and
// `mlnn import-onnx`, which the Python package mlnn does: so the tool needs neither protobuf nor
// a Python interpreter to be built or to run.
#pragma once

#include "tools/shell/Tool.h"

namespace mlnn {

void addExportOnnxCommand(Tool& tool);
void addImportOnnxCommand(Tool& tool);

}  // namespace mlnn
