// The reader of text models, against the literal reader; what it accepts round-trips.
#include "fuzz/ModelChecks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  mlnn::fuzz::TextReading reading;
  mlnn::fuzz::readText(text, reading);
  if (reading.result == 0) mlnn::fuzz::requireTextRoundTrip(reading.model, text);
  return 0;
}
