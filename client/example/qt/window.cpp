#include "window.h"

#include <QCloseEvent>
#include <QDateTime>
#include <QPainter>
#include <QVBoxLayout>
#include <cstdio>
#include <utility>

using namespace lumora::client;

constexpr FrameSize pictureSize{1280, 720};

Window::Window(std::filesystem::path folder) : folder_(std::move(folder)) {
  auto* const column = new QVBoxLayout(this);
  for (QWidget* each : {static_cast<QWidget*>(&preview_), static_cast<QWidget*>(&recordButton_),
                        static_cast<QWidget*>(&status_)})
    column->addWidget(each);
  preview_.setMinimumSize(640, 360);
  connect(&recordButton_, &QPushButton::clicked, this, &Window::toggleTake);
  connect(&camera_, &QTimer::timeout, this, &Window::feed);

  options_.frameSize = pictureSize;
  options_.format = {.encoding = FrameEncoding::rgba, .firstRow = FirstRow::top};
  options_.queue = std::make_shared<EventQueue>();
  events_ = std::make_unique<QSocketNotifier>(options_.queue->descriptor(), QSocketNotifier::Read);
  connect(events_.get(), &QSocketNotifier::activated, this, [this] { options_.queue->dispatch(); });
  startHelper();
}

void Window::startHelper() try {
  recordButton_.setEnabled(false);
  HelperOptions options = options_;
  if (port_ != 0)
    options.arguments.insert(options.arguments.end(), {"--port", std::to_string(port_)});
  helper_ = std::make_unique<Helper>(options, [this](const Event& event) { helperSaid(event); });
} catch (const StartError& error) {
  say(error.what());
}

void Window::helperSaid(const Event& event) {
  if (std::holds_alternative<Ready>(event.what)) becomeReady();
  if (const auto* end = std::get_if<Exited>(&event.what)) helperEnded(*end);
}

void Window::becomeReady() {
  // If this helper ends, the next one gets the same token and port, so that clients can come back.
  options_.token = helper_->token();
  port_ = helper_->port();
  watchPreview();
  recordButton_.setEnabled(!isClosing_);
  camera_.start(std::chrono::milliseconds(33));
}

void Window::watchPreview() try {
  if (stream_ || !helper_ || helper_->port() == 0) return;
  stream_.emplace("127.0.0.1", helper_->port(), Seconds(0.1));
  stream_->sayHello(helper_->token());
  packets_ = std::make_unique<QSocketNotifier>(stream_->descriptor(), QSocketNotifier::Read);
  connect(packets_.get(), &QSocketNotifier::activated, this, &Window::drawPreview);
} catch (const std::exception&) {
  losePreview();
}

// Connects again in a moment. Usual reasons for the loss: the helper has ended (`Exited` follows),
// it already has two clients, or it has dropped this one, because half a second after a frame it
// had no acknowledgement.
void Window::losePreview() {
  if (packets_) packets_->setEnabled(false);  // not destroyed, since it may have called us
  stream_.reset();
  QTimer::singleShot(std::chrono::milliseconds(250), this, &Window::watchPreview);
}

void Window::helperEnded(const Exited& end) {
  const bool wasReady = helper_->port() != 0;
  recordButton_.setEnabled(false);
  recordButton_.setText("Record");
  // If the take was started after the helper's end, `helper_.reset()` drops its last event.
  take_.reset();
  camera_.stop();
  packets_.reset();
  stream_.reset();
  helper_.reset();
  if (isClosing_) {
    close();
    return;
  }
  say(end.reason.empty() ? "The helper has ended." : QString::fromStdString(end.reason));
  // A helper that was ready gets a successor with the same port. If a helper with a given port did
  // not become ready, another program may have the port, so the successor chooses another. A helper
  // that chose its own port and did not become ready gets no successor: it would fail, too.
  if (wasReady || std::exchange(port_, 0) != 0)
    QTimer::singleShot(std::chrono::seconds(1), this, &Window::startHelper);
}

void Window::drawPreview() try {
  QImage latest;
  while (const auto packet = stream_->receive(Seconds(0))) {
    if (QImage image = decoder_.decode(*packet); !image.isNull()) latest = image;
    if (packet->type == Packet::Type::frame) stream_->acknowledge(packet->frameID);
  }
  if (stream_->isClosed()) losePreview();
  if (latest.isNull()) return;
  preview_.setPixmap(QPixmap::fromImage(latest));
  ++drawnPictures_;
} catch (const std::exception&) {
  losePreview();
}

void Window::feed() try {
  auto frame = helper_->acquireFrame(pictureSize);
  if (!frame) return;  // the helper is behind: skip this picture
  QImage canvas(frame->pixels().data(), pictureSize.width, pictureSize.height,
                QImage::Format_RGBX8888);
  canvas.fill(Qt::darkBlue);
  QPainter(&canvas).fillRect(8 * ++fedPictures_ % pictureSize.width, 200, 240, 240, Qt::yellow);
  helper_->publish(*std::move(frame), frameID(Uptime::now()));
} catch (const std::bad_alloc&) {  // skip this picture
}

void Window::toggleTake() try {
  recordButton_.setEnabled(false);  // until the take records or has ended
  if (take_) {
    take_->stop();
    return;
  }
  const QString name = QDateTime::currentDateTime().toString("'take-'yyyyMMdd-hhmmss'.mp4'");
  take_ = helper_->startTake({.path = folder_ / name.toStdString()},
                             [this](const Recording& event) { takeSaid(event); });
} catch (const std::exception& error) {  // the path is too long or not UTF-8
  say(error.what());
  recordButton_.setEnabled(true);
}

void Window::takeSaid(const Recording& event) {
  const QString path = QString::fromStdString(event.path.string());
  switch (event.state) {
    case TakeState::starting:
    case TakeState::finishing:
      return;
    case TakeState::recording:
      say(QString("Recording: %1 s").arg(event.duration.count(), 0, 'f', 1));
      break;
    case TakeState::saved:
      say("Saved " + path);
      break;
    case TakeState::failed:
      say("Not saved: " + QString::fromStdString(event.error) +
          (event.kept ? "\nKept " + QString::fromStdString(event.kept->path.string()) : ""));
      break;
  }
  if (event.isOver()) take_.reset();
  recordButton_.setText(take_ ? "Stop" : "Record");
  recordButton_.setEnabled(helper_ && helper_->port() != 0 && !isClosing_);
}

// Tells the helper to end. The helper saves a running take first. The window stays open until the
// helper has ended, for 5 s at most.
void Window::closeEvent(QCloseEvent* event) {
  if (!helper_) return;
  event->ignore();
  if (std::exchange(isClosing_, true)) return;
  if (take_) take_->stop();
  helper_->requestStop();
}

void Window::say(const QString& words) {
  status_.setText(words);
  std::printf("%s\n", qPrintable(words));
  std::fflush(stdout);
}
