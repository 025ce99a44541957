#pragma once

#include <memory>

#include "platform/network.h"
#include "system/asio_dispatch.h"

namespace lumora {

class AsioNetwork final : public Network {
 public:
  explicit AsioNetwork(std::shared_ptr<AsioQueue> stateQueue);
  // Throws if `host` is no address and can't be a name. The listener's `start` resolves `host` and
  // binds its address.
  std::shared_ptr<TcpListener> makeListener(const std::string& host, std::uint16_t port) override;

 private:
  std::shared_ptr<AsioQueue> stateQueue_;
};

}  // namespace lumora
