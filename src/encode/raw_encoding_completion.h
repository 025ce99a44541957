#pragma once

#include <functional>
#include <set>
#include <utility>

namespace lumora {

// Waits for every encode of one raw frame, then runs its action. Token 0 belongs to the code that
// starts the encodes, so the action never runs before all of them have begun. State queue only.
class RawEncodingCompletion {
 public:
  explicit RawEncodingCompletion(std::function<void()> completion)
      : completion_(std::move(completion)) {}

  // A token for one more encode.
  int begin() { return *pending_.insert(nextToken_++).first; }

  // The encode of `token` is done. A second call for the same token does nothing.
  void complete(int token) {
    if (pending_.erase(token) > 0 && pending_.empty()) completion_();
  }

 private:
  std::set<int> pending_ = {0};
  int nextToken_ = 1;
  std::function<void()> completion_;
};

}  // namespace lumora
