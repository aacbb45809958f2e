#include "os/Names.h"

namespace mlnn {

std::filesystem::path pathOf(std::string_view name) { return std::filesystem::path(name); }

std::string nameOf(const std::filesystem::path& path) { return path.string(); }

}  // namespace mlnn
