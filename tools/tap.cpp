// The stream tap: one client that writes the preview to standard output as Annex B, for players.
//
//   TAVO_VIDEO_TOKEN=... lumora-tap PORT [HOST] | ffplay -f h264 -

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "client/stream_client.h"

namespace {

bool writeAll(const std::vector<std::uint8_t>& bytes) {
  return std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size() &&
         std::fflush(stdout) == 0;
}

int tap(const std::string& host, std::uint16_t port, const std::string& token) {
  lumora::client::StreamClient stream(host, port);
  if (!stream.sayHello(token)) return 1;
  while (!stream.isClosed()) {
    const auto packet = stream.receive(1);
    if (!packet) continue;
    if (packet->type == lumora::client::Packet::Type::frame) stream.acknowledge(packet->frameID);
    if (!writeAll(toAnnexB(*packet))) return 0;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const char* token = std::getenv("TAVO_VIDEO_TOKEN");  // NOLINT(concurrency-mt-unsafe): one thread
  if (argc < 2 || token == nullptr) {
    std::fprintf(stderr, "usage: TAVO_VIDEO_TOKEN=... %s PORT [HOST]\n", argv[0]);
    return 2;
  }
  try {
    const auto port = static_cast<std::uint16_t>(std::strtoul(argv[1], nullptr, 10));
    return tap(argc > 2 ? argv[2] : "127.0.0.1", port, token);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
