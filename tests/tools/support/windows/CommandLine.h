// toolLine — the command line that starts the tool.
#pragma once

#include <string>
#include <vector>

namespace mlnn::test {

std::wstring toolLine(const std::vector<std::string>& arguments);

}  // namespace mlnn::test
