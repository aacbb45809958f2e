#include "tools/reports/Json.h"

#include <iostream>

namespace mlnn {

void printJson(const Json& json) {
  std::cout << json.dump(2, ' ', true, Json::error_handler_t::replace) << "\n";
}

void printJsonLine(const Json& json) {
  std::cout << json.dump(-1, ' ', true, Json::error_handler_t::replace) << std::endl;
}

}  // namespace mlnn
