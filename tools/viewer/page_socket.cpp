#include "tools/viewer/page_socket.h"

namespace lumora::viewer {
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using boost::system::error_code;

void PageSocket::accept(const beast::http::request<beast::http::empty_body>& request,
                        std::function<void()> ready) {
  auto& stream = beast::get_lowest_layer(socket_);
  stream.expires_never();  // the WebSocket has timeouts of its own
  error_code ignored;
  stream.socket().set_option(boost::asio::ip::tcp::no_delay(true), ignored);
  socket_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
  constexpr std::size_t maximumIncomingBytes = 8192;
  socket_.read_message_max(maximumIncomingBytes);
  socket_.async_accept(request,
                       [self = shared_from_this(), ready = std::move(ready)](error_code error) {
                         if (error) return;
                         ready();
                         self->read();
                       });
}

void PageSocket::read() {
  socket_.async_read(received_, [self = shared_from_this()](error_code error, std::size_t) {
    if (error) return self->closed();
    const auto bytes = self->received_.data();
    if (self->onMessage) {
      self->onMessage({static_cast<const char*>(bytes.data()), bytes.size()});
    }
    self->received_.clear();
    self->read();
  });
}

void PageSocket::send(Outgoing message) {
  constexpr std::size_t maximumOutgoingBytes = std::size_t{8} << 20;
  const std::size_t size = message.bytes.size();
  if (closing_ || outgoingBytes_ + size > maximumOutgoingBytes) return;
  outgoingBytes_ += size;
  outgoing_.push_back(std::move(message));
  if (outgoing_.size() == 1) writeNext();
}

void PageSocket::writeNext() {
  socket_.text(outgoing_.front().isText);
  socket_.async_write(boost::asio::buffer(outgoing_.front().bytes),
                      [self = shared_from_this()](error_code error, std::size_t size) {
                        if (error) return self->closed();
                        self->outgoingBytes_ -= size;
                        self->outgoing_.pop_front();
                        if (!self->outgoing_.empty()) return self->writeNext();
                        if (self->closing_) self->close();
                      });
}

void PageSocket::close() {
  closing_ = true;
  if (!outgoing_.empty()) return;  // `writeNext` calls this again
  socket_.async_close(websocket::close_code::normal,
                      [self = shared_from_this()](error_code) { self->closed(); });
}

void PageSocket::closed() {
  onMessage = {};  // a read that ends later must deliver nothing
  if (const auto tell = std::exchange(onClosed, {})) tell();
}

}  // namespace lumora::viewer
