// tellOfEach — what a command says of several files.
#pragma once

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "tools/ExitStatus.h"
#include "tools/Failure.h"
#include "tools/reports/Json.h"

namespace mlnn {

// Prints what there is to say of each file: one after another with an empty line between them, or
// as a JSON array. Those of which `read` throws a Failure are left out, after its message.
// `read(name)` returns what is known of a file, which `print` prints, `printAsJson` as an entry of
// the array, and `statusOf` judges. Returns: the worst status; kRefused where a file was left out.
template <typename Read, typename Print, typename PrintAsJson, typename StatusOf>
int tellOfEach(const std::vector<std::string>& names, bool asJson, const Read& read,
               const Print& print, const PrintAsJson& printAsJson, const StatusOf& statusOf) {
  int status = kDone;
  bool isFirst = true;
  JsonPrinter printer(std::cout);
  if (asJson) printer.beginArray();
  for (const std::string& name : names) {
    try {
      const auto known = read(name);
      status = std::max(status, statusOf(known));
      if (asJson) {
        printAsJson(known, printer);
        continue;
      }
      if (!isFirst) std::cout << "\n";
      isFirst = false;
      print(known);
      std::cout.flush();  // what is said of the next one comes after it
    } catch (const Failure& failure) {
      printError(failure.what());
      status = kRefused;
    }
  }
  if (asJson) printer.end();
  return status;
}

}  // namespace mlnn
