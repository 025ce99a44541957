#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "client/take_state.h"

namespace lumora::client {

// The takes of one helper that have not ended. Any thread.
class Takes {
 public:
  // Once the helper has ended, the take has, too.
  void add(std::shared_ptr<Take::State> take);
  // An event about any of them.
  void report(const Recording& recording);
  // The helper has ended, for this reason, and with it all of them.
  void abandonAll(const std::string& reason);

 private:
  std::mutex mutex_;                                           // guards the rest
  std::map<std::string, std::shared_ptr<Take::State>> takes_;  // by id
  std::optional<std::string> ended_;
};

}  // namespace lumora::client
