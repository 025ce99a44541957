// A camera application with Qt: shows the preview of a helper, and records takes.
//
//   lumora-qt [FOLDER [SECONDS]]
//
// With SECONDS it records one take of that length by itself, and ends.

#include <QApplication>

#include "window.h"

namespace {

// Waits until the button is enabled, presses it, and presses it again after `length`. Closes the
// window when the take is over, or if the button is not enabled for 20 s.
void recordOnce(Window& window, std::chrono::milliseconds length) {
  static constexpr std::chrono::milliseconds soon(50);
  auto* const timer = new QTimer(&window);
  window.connect(timer, &QTimer::timeout,
                 [&window, timer, length, presses = 0, waited = 0]() mutable {
                   if (!window.recordButton().isEnabled()) {
                     if (++waited * soon > std::chrono::seconds(20)) window.close();
                     return;
                   }
                   const bool isRecording = window.recordButton().text() == "Stop";
                   if (presses == 0 || (presses == 1 && isRecording)) {
                     ++presses;
                     window.recordButton().click();
                     timer->start(presses == 1 ? length : soon);
                     return;
                   }
                   timer->stop();
                   std::printf("%d pictures of the preview were drawn\n", window.drawnPictures());
                   window.close();
                 });
  timer->start(soon);
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
