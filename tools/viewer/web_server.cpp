#include "tools/viewer/web_server.h"

#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <utility>
#include <vector>

#include "tools/viewer/page_files.h"
#include "tools/viewer/page_socket.h"

namespace lumora::viewer {
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

using Status = http::status;

constexpr std::chrono::seconds patience{30};
constexpr std::uint32_t maximumHeaderBytes = 8192;
constexpr std::size_t moviePartBytes = 256 * 1024;

std::optional<std::string_view> field(const http::request<http::empty_body>& request,
                                      http::field name) {
  const auto found = request.find(name);
  if (found == request.end()) return std::nullopt;
  return std::string_view(found->value().data(), found->value().size());
}

std::string_view mimeType(std::string_view name) {
  if (name.ends_with(".js")) return "text/javascript; charset=utf-8";
  if (name.ends_with(".css")) return "text/css; charset=utf-8";
  return "text/html; charset=utf-8";
}

// The fields of every response but the socket's. They make the browser run only our own files in
// the page, never show the page in another site's frame, and never send its secret address
// elsewhere.
http::response_header<> makeHeader(Status status, std::string_view type) {
  http::response_header<> header;
  header.version(11);
  header.result(status);
  header.set(http::field::content_type, beast::string_view(type.data(), type.size()));
  header.set(http::field::cache_control, "no-store");
  header.set("Referrer-Policy", "no-referrer");
  header.set("X-Content-Type-Options", "nosniff");
  header.set("Cross-Origin-Resource-Policy", "same-origin");
  header.set("Cross-Origin-Opener-Policy", "same-origin");
  header.set("Content-Security-Policy",
             "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
             "media-src 'self'; img-src 'self' data:; base-uri 'none'; form-action 'none'; "
             "frame-ancestors 'none'");
  return header;
}

// One connection. It answers one request after the other. It closes after a 404. After a request
// for the page's socket, the connection belongs to a PageSocket.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(tcp::socket socket, const WebRules& rules, const WebHandlers& handlers,
              std::shared_ptr<const int> slot)
      : stream_(std::move(socket)), rules_(rules), handlers_(handlers), slot_(std::move(slot)) {}

  void readRequest() {
    parser_.emplace();
    parser_->header_limit(maximumHeaderBytes);
    parser_->body_limit(0);
    stream_.expires_after(patience);
    http::async_read(stream_, received_, *parser_,
                     [self = shared_from_this()](error_code error, std::size_t) {
                       if (!error) self->answer();
                     });
  }

 private:
  void answer() {
    stream_.expires_after(patience);
    const auto& request = parser_->get();
    const auto target = request.target();
    const auto wanted =
        rules_.resource(field(request, http::field::host).value_or(""),
                        field(request, http::field::origin), {target.data(), target.size()});
    if (wanted && request.method() == http::verb::get) {
      if (*wanted == "socket" && beast::websocket::is_upgrade(request)) return openSocket();
      if (const auto movie = handlers_.movie(*wanted); !movie.empty()) return sendMovie(movie);
      if (const auto file = pageFile(wanted->empty() ? "index.html" : *wanted)) {
        return send(Status::ok, mimeType(*wanted), *file);
      }
    }
    send(Status::not_found, "text/plain", "");
  }

  void openSocket() {
    const auto page = std::make_shared<PageSocket>(std::move(stream_));
    page->accept(parser_->get(), [page, &handlers = handlers_] { handlers.pageJoined(page); });
  }

  void send(Status status, std::string_view type, std::string_view body) {
    const auto response =
        std::make_shared<http::response<http::string_body>>(makeHeader(status, type));
    response->body() = body;
    response->prepare_payload();
    response->keep_alive(status == Status::ok && parser_->get().keep_alive());
    http::async_write(stream_, *response,
                      [self = shared_from_this(), response](error_code error, std::size_t) {
                        if (!error && response->keep_alive()) self->readRequest();
                      });
  }

  void sendMovie(const std::filesystem::path& path) {
    movie_ = std::ifstream(path, std::ios::binary | std::ios::ate);
    if (!movie_) return send(Status::not_found, "text/plain", "");
    const auto size = static_cast<std::uint64_t>(movie_.tellg());
    const auto [kind, first, length] =
        parseRange(field(parser_->get(), http::field::range).value_or(""), size);
    const auto response =
        std::make_shared<http::response<http::empty_body>>(makeHeader(Status::ok, "video/mp4"));
    response->set(http::field::accept_ranges, "bytes");
    response->content_length(length);
    if (kind == ByteRange::Kind::part) {
      response->result(Status::partial_content);
      response->set(http::field::content_range, "bytes " + std::to_string(first) + "-" +
                                                    std::to_string(first + length - 1) + "/" +
                                                    std::to_string(size));
    } else if (kind == ByteRange::Kind::unsatisfiable) {
      response->result(Status::range_not_satisfiable);
      response->set(http::field::content_range, "bytes */" + std::to_string(size));
    }
    movie_.seekg(static_cast<std::streamoff>(first));
    const auto header = std::make_shared<http::response_serializer<http::empty_body>>(*response);
    http::async_write_header(stream_, *header,
                             [self = shared_from_this(), response, header, left = length](
                                 error_code error, std::size_t) {
                               if (!error) self->sendMoviePart(left);
                             });
  }

  void sendMoviePart(std::uint64_t left) {
    if (left == 0) return readRequest();
    moviePart_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(left, moviePartBytes)));
    if (!movie_.read(moviePart_.data(), std::ssize(moviePart_))) return;  // the file has shrunk
    stream_.expires_after(patience);
    asio::async_write(stream_, asio::buffer(moviePart_),
                      [self = shared_from_this(), left](error_code error, std::size_t written) {
                        if (!error) self->sendMoviePart(left - written);
                      });
  }

  beast::tcp_stream stream_;
  const WebRules& rules_;
  const WebHandlers& handlers_;
  const std::shared_ptr<const int> slot_;  // a copy of the server's `sessions_`
  beast::flat_buffer received_;
  std::optional<http::request_parser<http::empty_body>> parser_;
  std::ifstream movie_;
  std::vector<char> moviePart_;
};

}  // namespace

WebServer::WebServer(asio::io_context& context, std::uint16_t port, const std::string& secret)
    : acceptor_(context, {asio::ip::address_v4::loopback(), port}),
      retry_(context),
      rules_(acceptor_.local_endpoint().port(), secret) {
  fcntl(acceptor_.native_handle(), F_SETFD, FD_CLOEXEC);  // a child must not keep the port in use
}

void WebServer::start(WebHandlers handlers) {
  handlers_ = std::move(handlers);
  acceptNext();
}

void WebServer::acceptNext() {
  constexpr long maximumSessions = 32;  // connections at once, not counting the page's socket
  acceptor_.async_accept([this](const error_code& error, tcp::socket socket) {
    if (error == asio::error::operation_aborted) return;
    if (error) {  // descriptors have run out, so the next attempt has to wait
      retry_.expires_after(std::chrono::milliseconds(100));
      return retry_.async_wait([this](const error_code& aborted) {
        if (!aborted) acceptNext();
      });
    }
    fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);  // a child must not keep it open
    if (sessions_.use_count() <= maximumSessions) {
      std::make_shared<HttpSession>(std::move(socket), rules_, handlers_, sessions_)->readRequest();
    }
    acceptNext();
  });
}

}  // namespace lumora::viewer
