#pragma once

#include <string>
#include <vector>

namespace lumora::viewer {

// The text of a bug report: versions, this machine, the last lines of the run that it is about, and
// the result of each encoder, which a helper tries for some seconds. The text has no token.
// `helper` is the `program` of HelperOptions.
std::string makeReport(const std::string& helper, const std::vector<std::string>& events);

}  // namespace lumora::viewer
