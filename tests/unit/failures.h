#pragma once

#include <map>

namespace lumora {

// The calls of the fake machine that can be made to fail.
enum class Call {
  createSession,
  setProperty,
  prepare,
  createBuffer,
  convert,
  submit,
  createWriter,
  canAdd,
  startWriting,
  isReady,
  append,
  move,
  writeOutput,
};

// Makes the n-th call of one kind fail, and the ones after it as long as asked for. One for the
// whole machine, so that every call can fail in its turn.
class Failures {
 public:
  // The `nth` call from now on, counted from 1, answers `status`; so do `more` calls after it.
  void fail(Call call, int nth = 1, int status = -1, int more = 0) {
    plans_[call] = {nth, nth + more, status};
  }
  // Made by the fakes at every call: what it answers instead of doing its work, or 0.
  int next(Call call) {
    const auto found = plans_.find(call);
    if (found == plans_.end()) return 0;
    Plan& plan = found->second;
    const bool hit = ++plan.calls >= plan.first && plan.calls <= plan.last;
    plan.hit = plan.hit || hit;
    return hit ? plan.status : 0;
  }
  // Whether it has come to that.
  bool hasHit(Call call) const { return plans_.at(call).hit; }

 private:
  struct Plan {
    int first = 0;
    int last = 0;
    int status = 0;
    int calls = 0;
    bool hit = false;
  };
  std::map<Call, Plan> plans_;
};

}  // namespace lumora
