// ToolBuild — how the tool that is tested was compiled, which its tests may be otherwise.
#pragma once

namespace mlnn::test {

// Whether it has a sanitizer of memory or of threads: more memory is taken then, and no library is
// loaded before the sanitizer's.
bool toolHasSanitizers();

}  // namespace mlnn::test
