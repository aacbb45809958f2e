// Machine — what a benchmark runs on, and whether it is alone there.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace mlnn::bench {

// The processor's name as the system gives it.
std::string processorName();

// Names and values, in the order in which they are shown: the processor's name, its family and
// model, and its caches.
std::vector<std::pair<std::string, std::string>> processorFacts();

double machineLoad();

// Prints a warning where others use the machine: a busy process takes its part of the memory
// bandwidth, and often of the core.
void warnUnlessIdle();

}  // namespace mlnn::bench
