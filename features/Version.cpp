#include "features/Version.h"

namespace mlnn {

const char* version() { return MLNN_VERSION_STRING; }

}  // namespace mlnn
