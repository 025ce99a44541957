#pragma once

#include "base/bytes.h"

namespace lumora {

struct MovieContents {
  bool opened = false;
  std::int64_t duration = 0;  // of the stream
  std::vector<std::int64_t> times, durations;
  int keyframes = 0;
};

// What libavformat reads of a movie. Only packets count that carry a whole sample of the tests.
MovieContents readMovie(ByteView bytes);

}  // namespace lumora
