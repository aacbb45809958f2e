#include "os/Names.h"

namespace mlnn {

void openToRead(std::ifstream& stream, const char* name) {
  stream.open(pathOf(name), std::ios::in | std::ios::binary);
}

}  // namespace mlnn
