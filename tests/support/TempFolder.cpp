#include "tests/support/TempFolder.h"

#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace mlnn::test {

std::string contentOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("no file " + path);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

TempFolder::TempFolder() {
  std::string path = (fs::temp_directory_path() / "mlnn-test-XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp");
  }
  path_ = path;
}

TempFolder::~TempFolder() {
  std::error_code error;
  fs::remove_all(path_, error);
}

std::string TempFolder::path(const std::string& name) const {
  return name.empty() ? path_ : path_ + "/" + name;
}

std::string TempFolder::write(const std::string& name, const std::string& content) const {
  std::ofstream out(path(name), std::ios::binary);
  out << content;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path(name));
  return path(name);
}

std::vector<std::string> TempFolder::names() const {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(path_)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace mlnn::test
