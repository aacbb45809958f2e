// The exit statuses of the tool.
#pragma once

namespace mlnn {

inline constexpr int kDone = 0;
inline constexpr int kRefused = 1;
inline constexpr int kWrongUsage = 2;

}  // namespace mlnn
