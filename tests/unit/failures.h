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
  exists,
  createWriter,
  canAdd,
  startWriting,
  isReady,
  append,
  move,
  writeOutput,
  count
};

// Makes the n-th call of one kind fail. One for the whole machine, so that every call can fail in
// its turn.
class Failures {
 public:
  // The `nth` call from now on, counted from 1, answers `status`; so do `more` calls after it.
  void fail(Call call, int nth = 1, int status = -1, int more = 0) {
    plans_[call] = {nth, more + 1, status};
  }
  // Made by the fakes at every call: what it answers instead of doing its work, or 0.
  int next(Call call) {
    Plan& plan = plans_[call];
    if (plan.status == 0 || --plan.before > 0 || plan.left == 0) return 0;
    --plan.left;
    return plan.status;
  }
  // Whether it has come to that.
  bool hasHit(Call call) { return plans_[call].before <= 0; }

 private:
  struct Plan {
    int before = 0;  // calls until the first that fails
    int left = 0;    // to fail
    int status = 0;
  };
  std::map<Call, Plan> plans_;
};

}  // namespace lumora
