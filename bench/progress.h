#pragma once

#include <cstdio>
#include <string>

#include <lumora/uptime.h>

namespace lumora::bench {

// Says on standard error what is being done, and how long it takes until all is done.
class Progress {
 public:
  // All steps together are planned to take `seconds`.
  explicit Progress(double seconds) : planned_(seconds) {}
  // Begins a step that is planned to take `seconds`. Prints the planned time left, multiplied by
  // the ratio of real to planned time so far.
  void begin(const std::string& step, double seconds) {
    const double elapsed = (client::Uptime::now() - start_).count();
    const double pace = begun_ > 0 ? elapsed / begun_ : 1;
    std::fprintf(stderr, "\r%4.0f min left: %-80s", (planned_ - begun_) * pace / 60, step.c_str());
    begun_ += seconds;
  }
  // Erases the progress, so that a line on standard output can take its place.
  static void clear() { std::fprintf(stderr, "\r%98s\r", ""); }

 private:
  const client::Uptime::time_point start_ = client::Uptime::now();
  const double planned_;
  double begun_ = 0;  // planned seconds of the steps that have begun
};

}  // namespace lumora::bench
