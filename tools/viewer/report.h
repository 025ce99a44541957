#pragma once

#include <string>
#include <vector>

namespace lumora::viewer {

// The text of a bug report: versions, this machine, the helper's program, `events`, and the result
// of each encoder. Runs a helper with each encoder in turn, for some seconds. `events` are the last
// lines of the run that the report is about. The helper's token is not in the text. `helper` is the
// `program` of HelperOptions.
std::string makeReport(const std::string& helper, const std::vector<std::string>& events);

}  // namespace lumora::viewer
