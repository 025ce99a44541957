#pragma once

#include <lumora/helper.h>
#include <lumora/stream_client.h>

#include <QLabel>
#include <QPushButton>
#include <QSocketNotifier>
#include <QTimer>
#include <QWidget>

#include "preview_decoder.h"

// The window of a small camera application. It does not wait for the helper's events: a queue
// brings them to the window's thread. A moving picture stands in for the camera.
class Window : public QWidget {
 public:
  // Takes are saved into this folder, which is an absolute path.
  explicit Window(std::filesystem::path folder);
  QPushButton& recordButton() { return recordButton_; }
  int drawnPictures() const { return drawnPictures_; }

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  void startHelper();
  void helperSaid(const lumora::client::Event& event);
  void becomeReady();
  void watchPreview();
  void losePreview();
  void helperEnded(const lumora::client::Exited& end);
  void drawPreview();
  void feed();
  void toggleTake();
  void takeSaid(const lumora::client::Recording& event);
  void say(const QString& words);

  const std::filesystem::path folder_;
  QLabel preview_;
  QLabel status_;
  QPushButton recordButton_{"Record"};
  QTimer camera_;
  int fedPictures_ = 0;
  int drawnPictures_ = 0;
  bool isClosing_ = false;

  lumora::client::HelperOptions options_;
  std::uint16_t port_ = 0;                   // for the next helper; 0: any
  std::unique_ptr<QSocketNotifier> events_;  // of the helper's queue
  std::unique_ptr<lumora::client::Helper> helper_;
  std::optional<lumora::client::Take> take_;  // while it runs
  PreviewDecoder decoder_;
  std::optional<lumora::client::StreamClient> stream_;
  std::unique_ptr<QSocketNotifier> packets_;  // of the stream
};
