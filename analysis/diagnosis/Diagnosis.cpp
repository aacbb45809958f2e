#include "analysis/diagnosis/Diagnosis.h"

#include "analysis/diagnosis/ImageDiagnosis.h"
#include "analysis/diagnosis/TextDiagnosis.h"
#include "analysis/diagnosis/TextPlace.h"
#include "model/ModelFormat.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

// What is too short to tell its format is called a text file, which an empty one is.
Misfit tooShort(std::string_view file) {
  Misfit misfit;
  misfit.offset = file.size();
  placeInText(file, misfit);
  misfit.field = "header";
  misfit.expected = counted(kMagicLength, "byte") + " or more";
  misfit.found = std::string(kEndOfFile) + " after " + counted(file.size(), "byte");
  return misfit;
}

}  // namespace

std::optional<Misfit> diagnose(std::string_view file, const Watch& watch) {
  if (file.size() < kMagicLength) return tooShort(file);
  if (isImage(file)) return diagnoseImage(file);
  return diagnoseText(file, watch);
}

std::string describe(const Misfit& misfit) {
  const std::string place = misfit.line == 0 ? "byte " + std::to_string(misfit.offset)
                                             : "line " + std::to_string(misfit.line) + ", column " +
                                                   std::to_string(misfit.column);
  return place + ": " + misfit.field + ": expected " + misfit.expected + ", found " + misfit.found;
}

}  // namespace mlnn
