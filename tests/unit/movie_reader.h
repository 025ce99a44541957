#pragma once

#include "base/bytes.h"

namespace lumora {

struct MovieContents {
  bool opened = false;
  std::int64_t duration = 0;  // of the stream
  std::vector<std::int64_t> times, durations;
  int keyframes = 0;
};

// What libavformat reads of a whole movie, of whose packets only those count that carry what tests
// write, in whole samples.
MovieContents readMovie(ByteView bytes);

}  // namespace lumora
