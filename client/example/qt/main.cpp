// A camera application with Qt: shows the preview of a helper, and records takes.
//
//   lumora-qt [FOLDER [SECONDS]]
//
// With SECONDS it records one take of that length by itself, and ends.

#include <QApplication>

#include "window.h"

namespace {

// Waits until the button is enabled and presses it. Presses it again once `length` has passed.
// Closes the window when the take is over, or if the button is disabled for 20 s.
void recordOnce(Window& window, std::chrono::milliseconds length) {
  using Clock = std::chrono::steady_clock;
  auto* const timer = new QTimer(&window);
  window.connect(timer, &QTimer::timeout,
                 [&window, timer, length, presses = 0, pressedAt = Clock::time_point(),
                  enabledAt = Clock::now()]() mutable {
                   const auto now = Clock::now();
                   if (!window.recordButton().isEnabled()) {
                     if (now - enabledAt > std::chrono::seconds(20)) window.close();
                     return;
                   }
                   enabledAt = now;
                   const bool isRecording = window.recordButton().text() == "Stop";
                   if (presses == 1 && isRecording && now - pressedAt < length) return;
                   if (presses == 0 || (presses == 1 && isRecording)) {
                     ++presses;
                     pressedAt = now;
                     window.recordButton().click();
                     return;
                   }
                   timer->stop();
                   std::printf("%d pictures of the preview were drawn\n", window.drawnPictures());
                   window.close();
                 });
  timer->start(std::chrono::milliseconds(50));
}

}  // namespace

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  const QStringList words = application.arguments();
  Window window(std::filesystem::absolute(words.value(1, ".").toStdString()));
  window.show();
  if (words.size() > 2) recordOnce(window, std::chrono::seconds(words[2].toInt()));
  return application.exec();
}
