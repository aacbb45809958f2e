#include "tools/reports/Json.h"

#include <iostream>

namespace mlnn {

void printJson(const Json& json) {
  std::cout << json.dump(2, ' ', true, Json::error_handler_t::replace) << "\n";
}

}  // namespace mlnn
