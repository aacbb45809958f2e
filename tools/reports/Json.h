// JSON as the tool's commands print it.
#pragma once

#include <cstddef>
#include <functional>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

namespace mlnn {

// Keys stay in the order in which they were set.
using Json = nlohmann::ordered_json;

// Prints JSON on the standard output, in ASCII. What it cannot hold is replaced: bytes that are
// not UTF-8 become U+FFFD, numbers that are not finite null.
void printJson(const Json& json);

// The same on one line, which leaves the process at once.
void printJsonLine(const Json& json);

// Prints an object or an array piece by piece, to the byte as printJson does it with the whole, of
// which there may be more than memory should hold; or as printJsonLine does.
class JsonPrinter {
 public:
  enum class Form { kIndented, kLine };

  explicit JsonPrinter(std::ostream& out, Form form = Form::kIndented)
      : out_(out), isLine_(form == Form::kLine) {}

  void beginObject() { begin('{'); }
  void beginArray() { begin('['); }
  void end();  // of what began last

  // What follows is the value of this member of an object.
  void key(const std::string& key);

  // Prints a member of an object, or an entry of an array.
  void member(const std::string& key, const Json& value);
  void entry(const Json& value);

  // Prints an array of so many entries, which are made one by one.
  void array(const std::string& key, std::size_t count,
             const std::function<Json(std::size_t)>& entryAt);

 private:
  void begin(char bracket);
  void beginEntry();
  void newLine();

  std::ostream& out_;
  bool isLine_;
  std::string open_;     // the brackets
  bool isFirst_ = true;  // in the innermost of them
  bool isBehindKey_ = false;
};

}  // namespace mlnn
