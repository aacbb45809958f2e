#include "tests/support/TempFolder.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
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
  std::random_device random;
  fs::path path;
  do {
    path = fs::temp_directory_path() / ("mlnn-test-" + std::to_string(random()));
  } while (!fs::create_directory(path));
  fs::permissions(path, fs::perms::owner_all);
  path_ = path.generic_string();
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
