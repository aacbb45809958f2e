// ModelPage — all that the tool knows of a model as one page.
#pragma once

#include <optional>
#include <ostream>

#include "features/Watch.h"
#include "model/ModelFile.h"
#include "tools/page/RecordingFindings.h"
#include "tools/page/RoundingTrial.h"
#include "tools/reports/DiffReport.h"

namespace mlnn {

// What a page is about. Nothing but the first need be there.
struct PageSubject {
  const ModelFile& file;
  const RecordingFindings* recordings = nullptr;       // of this model
  const RoundingTrial* rounding = nullptr;             // of it over the same recordings
  const ModelFile* other = nullptr;                    // what it is compared with
  const RecordingFindings* otherRecordings = nullptr;  // the same ones, of the other model
  const ModelDiff* diff = nullptr;                     // of the two models
};

// Writes a page that needs no other file and runs nothing: HTML that is XML too.
// Besides the subject and the stream it takes memory for one picture, whatever the model's size,
// and with `rounding` that of a copy of the model.
// `watch` is told of layers, each of which counts once.
void writePage(std::ostream& out, const PageSubject& subject, const Watch& watch = {});

}  // namespace mlnn
