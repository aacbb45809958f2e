#include "analysis/diagnosis/TextDiagnosis.h"

#include "analysis/diagnosis/TextFindings.h"
#include "analysis/diagnosis/TextHeadWalk.h"
#include "analysis/diagnosis/TextLayersWalk.h"
#include "analysis/diagnosis/TextWords.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

// A description of another length than the inputs of the model is refused when all else is read.
void refuseOtherLength(TextFindings& findings, const TextHead& head, int numInputs) {
  const int length = head.desc.featLen();
  if (length == 0 || length == numInputs) return;
  findings.refuse(
      *head.descOffset, "feature description",
      "one of " + counted(static_cast<std::size_t>(numInputs), "value") + ", the inputs of layer 1",
      excerpt(wordAt(findings.text(), *head.descOffset)) + ", which has " + std::to_string(length));
}

void walkOver(TextFindings& findings) {
  const std::optional<TextHead> head = walkOverHead(findings);
  if (!head) return;
  TextLayersWalk layers(findings, *head);
  if (layers.layersFit() && layers.endFits()) {
    refuseOtherLength(findings, *head, layers.numInputs());
  }
}

}  // namespace

std::optional<Misfit> diagnoseText(std::string_view text, const Watch& watch) {
  TextFindings findings(text, watch);
  walkOver(findings);
  return findings.misfit();
}

std::vector<Suspicion> suspiciousLines(std::string_view text, const Watch& watch) {
  TextFindings findings(text, watch);
  walkOver(findings);
  return findings.remarks();
}

}  // namespace mlnn
