// TextLayersWalk — the layers of a text model file, and what comes after them.
#pragma once

#include <string>

#include "analysis/diagnosis/RaggedRow.h"
#include "analysis/diagnosis/TextFindings.h"
#include "analysis/diagnosis/TextHeadWalk.h"

namespace mlnn {

// Each member function continues where the one before has stopped. One that returns false has
// met something that does not fit; the findings say what.
class TextLayersWalk {
 public:
  TextLayersWalk(TextFindings& findings, const TextHead& head)
      : findings_(findings), source_(findings.source), head_(head), raggedRow_(findings.text()) {}

  bool layersFit();
  bool endFits();

  // The inputs of the first layer, 0 where there is none.
  int numInputs() const { return numInputs_; }

 private:
  bool layerFits(int number);
  bool sizeLineFits(int number);
  bool sizeFits(const std::string& field, int smallest, int& size);
  bool activationFits(int number);
  bool refuseActivationLine(const std::string& field, const std::string& line, bool onSizeLine);
  bool gammaBetaFits(int number);
  template <typename NameOf>
  bool rowsFit(int number, int numValues, NameOf nameOf);
  bool refuseNumber(std::string field, std::string expected);

  TextFindings& findings_;
  PlacedStream& source_;
  const TextHead& head_;
  RaggedRow raggedRow_;  // of the layer read last
  int numInputs_ = 0;
  bool isBatchNorm_ = false;  // of the size line read last
  int rows_ = 0;
  int columns_ = 0;
};

}  // namespace mlnn
