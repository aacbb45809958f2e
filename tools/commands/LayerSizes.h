// Sizes of layers that a command line asks for.
#pragma once

#include <string>
#include <vector>

namespace mlnn {

// Parses "360,512,512,40": the inputs of the first layer, then the outputs of each.
// Throws: UsageError unless there are two or more numbers above 0.
std::vector<int> parseLayerSizes(const std::string& text);

// Makes sure that a network of these sizes can be held in a binary image, whose length is an
// int, before anything of its size is allocated.
// Throws: Failure.
void checkNetworkSize(const std::vector<int>& sizes, bool batchNorm);

}  // namespace mlnn
