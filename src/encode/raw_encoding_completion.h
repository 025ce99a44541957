#pragma once

#include <cstdint>
#include <functional>
#include <utility>

namespace lumora {

// Counts the encodes of one raw frame that are still outstanding, plus the submitter's own share
// (token 0), and runs its action once all are done. State queue only.
class RawEncodingCompletion {
 public:
  explicit RawEncodingCompletion(std::function<void()> completion)
      : completion_(std::move(completion)) {}

  // A token for one more encode.
  int begin() {
    ++remaining_;
    return nextToken_++;
  }

  // Ends the share of `token`; a second call for the same token (below 8) does nothing.
  void complete(int token) {
    if (token < guardedTokens) {
      const auto bit = static_cast<std::uint8_t>(1U << token);
      if ((completedTokens_ & bit) != 0) return;
      completedTokens_ = static_cast<std::uint8_t>(completedTokens_ | bit);
    }
    if (--remaining_ == 0) completion_();
  }

 private:
  static constexpr int guardedTokens = 8;

  int remaining_ = 1;
  int nextToken_ = 1;
  std::uint8_t completedTokens_ = 0;
  std::function<void()> completion_;
};

}  // namespace lumora
