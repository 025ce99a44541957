#include "tools/viewer/http_session.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "tools/viewer/page_files.h"
#include "tools/viewer/page_socket.h"

namespace lumora::viewer {
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;

namespace {

constexpr std::chrono::seconds patience{30};
constexpr std::uint32_t maximumHeaderBytes = 8192;
constexpr std::size_t moviePartBytes = 256 * 1024;
constexpr std::string_view movieFolder = "takes/";

std::optional<std::string_view> field(const http::request<http::empty_body>& request,
                                      http::field name) {
  const auto found = request.find(name);
  if (found == request.end()) return std::nullopt;
  return std::string_view(found->value().data(), found->value().size());
}

}  // namespace

HttpSession::HttpSession(boost::asio::ip::tcp::socket socket, const WebRules& rules,
                         const WebHandlers& handlers, std::shared_ptr<const void> slot)
    : stream_(std::move(socket)), rules_(rules), handlers_(handlers), slot_(std::move(slot)) {}

void HttpSession::readRequest() {
  parser_.emplace();
  parser_->header_limit(maximumHeaderBytes);
  parser_->body_limit(0);
  stream_.expires_after(patience);
  http::async_read(stream_, received_, *parser_,
                   [self = shared_from_this()](error_code error, std::size_t) {
                     if (error) return;  // whoever sends no request gets no answer
                     self->request_ = self->parser_->release();
                     self->answer();
                   });
}

void HttpSession::answer() {
  const auto host = field(request_, http::field::host);
  const auto target = request_.target();
  const auto wanted = rules_.resource(host.value_or(""), field(request_, http::field::origin),
                                      {target.data(), target.size()});
  const bool reads = request_.method() == http::verb::get || request_.method() == http::verb::head;
  if (!wanted || !reads) return send(http::status::not_found, "text/plain", "");
  if (*wanted == "socket" && beast::websocket::is_upgrade(request_)) return answerSocket();
  if (wanted->starts_with(movieFolder)) {
    if (const auto path = handlers_.movie(wanted->substr(movieFolder.size()))) {
      return answerMovie(*path);
    }
  } else if (const auto file = pageFile(wanted->empty() ? "index.html" : *wanted)) {
    return send(http::status::ok, mimeType(*wanted), *file);
  }
  send(http::status::not_found, "text/plain", "");
}

void HttpSession::answerSocket() {
  if (!rules_.allowsSocket(field(request_, http::field::origin))) {
    return send(http::status::not_found, "text/plain", "");
  }
  const auto page = std::make_shared<PageSocket>(std::move(stream_));
  page->accept(request_, [page, &handlers = handlers_] { handlers.pageJoined(page); });
}

void HttpSession::answerMovie(const std::filesystem::path& path) {
  movie_ = std::ifstream(path, std::ios::binary | std::ios::ate);
  if (!movie_) return send(http::status::not_found, "text/plain", "");
  sendMovie(std::string(field(request_, http::field::range).value_or("")));
}

void HttpSession::sendMovie(const std::string& range) {
  const auto size = static_cast<std::uint64_t>(movie_.tellg());
  const ByteRange part = parseRange(range, size);
  const auto head = std::make_shared<http::response<http::empty_body>>();
  addUsualFields(*head, "video/mp4");
  head->set(http::field::accept_ranges, "bytes");
  head->content_length(part.length);
  if (part.kind == ByteRange::Kind::part) {
    head->result(http::status::partial_content);
    head->set(http::field::content_range, "bytes " + std::to_string(part.first) + "-" +
                                              std::to_string(part.first + part.length - 1) + "/" +
                                              std::to_string(size));
  } else if (part.kind == ByteRange::Kind::unsatisfiable) {
    head->result(http::status::range_not_satisfiable);
    head->set(http::field::content_range, "bytes */" + std::to_string(size));
  }
  movie_.seekg(static_cast<std::streamoff>(part.first));
  const std::uint64_t length = request_.method() == http::verb::head ? 0 : part.length;
  const auto serializer = std::make_shared<http::response_serializer<http::empty_body>>(*head);
  http::async_write_header(
      stream_, *serializer,
      [self = shared_from_this(), head, serializer, length](error_code error, std::size_t) {
        if (!error) self->sendMoviePart(length);
      });
}

void HttpSession::sendMoviePart(std::uint64_t left) {
  if (left == 0) return readRequest();
  moviePart_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(left, moviePartBytes)));
  if (!movie_.read(moviePart_.data(), std::ssize(moviePart_))) return;  // it shrank: cut off here
  stream_.expires_after(patience);
  boost::asio::async_write(
      stream_, boost::asio::buffer(moviePart_),
      [self = shared_from_this(), left](error_code error, std::size_t written) {
        if (!error) self->sendMoviePart(left - written);
      });
}

void HttpSession::send(Status status, std::string_view type, std::string_view body) {
  const auto response = std::make_shared<http::response<http::string_body>>();
  response->result(status);
  addUsualFields(*response, type);
  response->content_length(body.size());
  if (request_.method() != http::verb::head) response->body() = body;
  response->keep_alive(status == http::status::ok && request_.keep_alive());
  stream_.expires_after(patience);
  http::async_write(
      stream_, *response, [self = shared_from_this(), response](error_code error, std::size_t) {
        if (error) return;
        if (response->keep_alive()) return self->readRequest();
        error_code ignored;
        self->stream_.socket().shutdown(boost::asio::socket_base::shutdown_send, ignored);
      });
}

// Nothing but our own files may act in the page, and its path is nobody else's to know or keep.
template <typename Response>
void HttpSession::addUsualFields(Response& response, std::string_view type) const {
  response.version(11);
  response.set(http::field::content_type, beast::string_view(type.data(), type.size()));
  response.set(http::field::cache_control, "no-store");
  response.set("Referrer-Policy", "no-referrer");
  response.set("X-Content-Type-Options", "nosniff");
  response.set("Cross-Origin-Resource-Policy", "same-origin");
  response.set("Cross-Origin-Opener-Policy", "same-origin");
  response.set("Content-Security-Policy",
               "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
               "media-src 'self'; img-src 'self' data:; base-uri 'none'; form-action 'none'; "
               "frame-ancestors 'none'");
}

}  // namespace lumora::viewer
