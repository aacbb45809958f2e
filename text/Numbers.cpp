#include "text/Numbers.h"

#include "text/DecimalConversion.h"

namespace mlnn {
namespace {

std::string numberText(char* (*write)(char*, double, int), double value, int digits) {
  char text[kLongestDecimal];
  return std::string(text, write(text, value, digits));
}

}  // namespace

std::string generalNumber(double value, int digits) {
  return numberText(writeGeneral, value, digits);
}

std::string fixedNumber(double value, int digits) {
  return numberText(writeFixedPoint, value, digits);
}

std::string counted(std::size_t number, const std::string& what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

}  // namespace mlnn
