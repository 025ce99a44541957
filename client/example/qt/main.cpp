// A camera application with Qt: shows the preview of a helper, and records takes.
//
//   lumora-qt FOLDER [SECONDS]
//
// With SECONDS it records one take of that length by itself, and ends.

#include <QApplication>

#include "window.h"

namespace {

void recordOnce(Window& window, std::chrono::seconds length) {
  using std::chrono::seconds;
  QTimer::singleShot(seconds(1), &window, [&window] { window.recordButton().click(); });
  QTimer::singleShot(seconds(1) + length, &window, [&window] { window.recordButton().click(); });
  QTimer::singleShot(seconds(2) + length, &window, [&window] {
    std::printf("%d pictures of the preview were drawn\n", window.drawnPictures());
    window.close();
  });
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
