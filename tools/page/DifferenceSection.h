// What a page says of the differences between two models.
#pragma once

#include "tools/page/Markup.h"
#include "tools/page/ModelPage.h"

namespace mlnn {

// REQUIRES: the subject has another model, and what differs.
void writeDifferences(Markup& page, const PageSubject& subject);

}  // namespace mlnn
