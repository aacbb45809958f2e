// TempFolder — a folder for the files of one test, which goes when the test ends.
#pragma once

#include <string>
#include <vector>

namespace mlnn::test {

// Returns the bytes of a file. Throws std::runtime_error when there is none.
std::string contentOf(const std::string& path);

// No two objects have the same folder, whatever processes they are in.
class TempFolder {
 public:
  // Throws: std::system_error when there can be no folder.
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  // The path of a file in the folder, whether there is one or not.
  std::string path(const std::string& name = "") const;

  // Makes a file and returns its path.
  std::string write(const std::string& name, const std::string& content) const;

  // The names of everything in the folder, hidden files included, sorted.
  std::vector<std::string> names() const;

 private:
  std::string path_;
};

}  // namespace mlnn::test
