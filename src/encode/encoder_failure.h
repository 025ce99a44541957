#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace lumora {

// Thrown when an operation of the service fails. An "error" or a "failed" event tells the parent
// the description of the failure.
class EncoderFailure : public std::exception {
 public:
  static EncoderFailure message(std::string text) { return EncoderFailure(std::move(text)); }

  // For a frame that could not be converted for an encoder.
  static EncoderFailure conversion() { return message("RGBA conversion failed"); }

  // For a platform call that failed. The description is "<what> failed (<status>)".
  static EncoderFailure status(const std::string& what, std::int32_t status) {
    return EncoderFailure(what + " failed (" + std::to_string(status) + ")");
  }

  const char* what() const noexcept override { return description_.c_str(); }

 private:
  explicit EncoderFailure(std::string description) : description_(std::move(description)) {}

  std::string description_;
};

}  // namespace lumora
