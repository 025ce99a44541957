#pragma once

// Takes of the real helper on the real disk, judged by ffprobe and ffmpeg.

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {

// The clock that takes are timed on, in seconds.
double uptime();

// What ffprobe says of the only stream of a file.
struct Probe {
  std::string text;
  std::string value(const std::string& key) const;
  long number(const std::string& key) const;
};
Probe probe(const std::string& path);

class TakeTest : public HelperTest {
 protected:
  void SetUp() override;

  // Start and stop the take at `path`, with further keys of the command.
  void startTake(const Event& extra = Event::object());
  void stopTake(const Event& extra = Event::object());
  // Feeds `count` frames at a steady rate, of one picture or of two in turn.
  void feedPaced(int count, double framesPerSecond, FrameSize size = {640, 360});
  void feedPaced(int count, double framesPerSecond, FrameSize size,
                 const std::array<Pixels, 2>& pictures);
  // Turns to another take of the same run: what is still said of the one before counts no more.
  void turnTo(const std::filesystem::path& file);
  // Records `count` frames at a steady rate; the "saved" event.
  Event take(int count, double framesPerSecond);
  // The take's next event with this state; throws when the take ends in another one.
  Event waitForTake(const std::string& state);
  std::string stagingPath() const { return path + "." + takeID + ".partial"; }
  std::size_t fileCount() const;

  std::string path;
  std::string takeID = "6F9619FF-8B86-D011-B42D-00CF4FC96400";
};

}  // namespace lumora::tests
