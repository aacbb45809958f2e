#include "os/Names.h"

#include "os/windows/WideText.h"

namespace mlnn {

std::filesystem::path pathOf(std::string_view name) { return std::filesystem::path(wideOf(name)); }

std::string nameOf(const std::filesystem::path& path) { return utf8Of(path.generic_wstring()); }

}  // namespace mlnn
