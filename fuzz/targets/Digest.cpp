// Prints of digests, as text and as JSON: what is accepted is printed and read back the same, and
// does not differ from itself; what is refused is refused with a reason.
#include <set>
#include <sstream>

#include "analysis/ModelDigest.h"
#include "fuzz/Support.h"
#include "tools/Failure.h"
#include "tools/reports/DigestReport.h"

namespace {

using mlnn::ModelDigest;
using mlnn::fuzz::require;

std::string printed(const ModelDigest& digest) {
  std::ostringstream out;
  mlnn::printDigest(digest, out);
  return out.str();
}

// A digest that names a section twice says two things of it.
bool namesEachOnce(const ModelDigest& digest) {
  std::set<std::string> names;
  for (const mlnn::DigestSection& section : digest.sections) {
    if (!names.insert(section.name).second) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  ModelDigest digest;
  const mlnn::fuzz::Limits limits(size, 256, std::size_t{1} << 20);
  try {
    digest = mlnn::parseDigest(text, "input");
    limits.check();
  } catch (const mlnn::Failure& failure) {
    limits.check();
    const std::string reason = failure.what();
    require(reason.compare(0, 7, "'input'") == 0, "refused without a reason");
    for (const char c : reason) {
      require(static_cast<unsigned char>(c) >= ' ' && c != '\x7f', "a raw character in a message");
    }
    return 0;
  }
  mlnn::compareDigests(digest, ModelDigest());
  mlnn::compareDigests(ModelDigest(), digest);
  require(!namesEachOnce(digest) || mlnn::compareDigests(digest, digest).differences.empty(),
          "differs from itself");
  // JSON may name sections as no line of text can.
  if (text.compare(0, 4, "mlnn") != 0) return 0;
  const ModelDigest again = mlnn::parseDigest(printed(digest), "input");
  require(printed(again) == printed(digest), "reads back otherwise");
  return 0;
}
