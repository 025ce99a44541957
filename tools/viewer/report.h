#pragma once

#include <string>
#include <vector>

namespace lumora::viewer {

// The text of a bug report: versions, this machine, `events` (the last lines of the run to report),
// and the result of each encoder. A helper runs with each for some seconds. The text has no token.
// `helper` is the `program` of HelperOptions.
std::string makeReport(const std::string& helper, const std::vector<std::string>& events);

}  // namespace lumora::viewer
