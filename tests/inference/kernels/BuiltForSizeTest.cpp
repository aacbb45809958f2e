// The tests of the arithmetic and of the checksum once more, over sources of the library that are
// compiled for size: tests/CMakeLists.txt lists them beside this one, which sees that they are.
#include "layers/BuiltForSize.h"

static_assert(mlnn::kBuiltForSize, "compiled with -Os, whatever the kind of build");
