#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace lumora {

// The one error value of the encoding, streaming and recording operations. Its description is
// the text that the parent gets to see.
class EncoderFailure : public std::exception {
 public:
  // A failure that is fully told by `text`.
  static EncoderFailure message(std::string text) { return EncoderFailure(std::move(text)); }

  // A platform call that failed: reads "<what> failed (<status>)".
  static EncoderFailure status(const std::string& what, std::int32_t status) {
    return EncoderFailure(what + " failed (" + std::to_string(status) + ")");
  }

  const std::string& description() const noexcept { return description_; }
  const char* what() const noexcept override { return description_.c_str(); }

 private:
  explicit EncoderFailure(std::string description) : description_(std::move(description)) {}

  std::string description_;
};

}  // namespace lumora
