#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace lumora {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;
using MutableByteView = std::span<std::uint8_t>;

// Bytes that several owners read and nobody changes, such as one packet sent to every peer.
using SharedBytes = std::shared_ptr<const Bytes>;

}  // namespace lumora
