// Apart from other names, whose paths a small device has no room for.
#include "os/Names.h"

namespace mlnn {

void openToRead(std::ifstream& stream, const char* name) { stream.open(name, std::ios::in); }

}  // namespace mlnn
