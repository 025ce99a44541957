#pragma once

#include <lumora/take.h>

#include "tools/viewer/page_messages.h"

namespace lumora::viewer {

// What to ask of the helper for a take that the page wants, in a file with a name that is free.
// `startedAt` is seconds of the uptime clock. Throws std::runtime_error when there is no such
// folder; its message is for people.
client::TakeOptions planTake(const StartTake& wanted, double startedAt);

}  // namespace lumora::viewer
