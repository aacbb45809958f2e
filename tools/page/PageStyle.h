// How pages look, and what they may do.
#pragma once

#include "tools/page/Markup.h"

namespace mlnn {

// Writes what stands in a page's head but its title: that the page runs nothing, fetches nothing
// and has no style but its own; and that style, for light and dark screens and for paper.
void writeStyle(Markup& page);

}  // namespace mlnn
