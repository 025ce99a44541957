#include "input/raw_admission.h"

namespace lumora {

bool RawAdmission::admit() {
  const std::lock_guard hold(admission_);
  if (rawBusy_) {
    ++droppedRaw_;
    return false;
  }
  rawBusy_ = true;
  return true;
}

void RawAdmission::release() {
  const std::lock_guard hold(admission_);
  rawBusy_ = false;
}

void RawAdmission::countDropped() {
  const std::lock_guard hold(admission_);
  ++droppedRaw_;
}

RawAdmission::Figures RawAdmission::figures() const {
  const std::lock_guard hold(admission_);
  return {rawBusy_, droppedRaw_};
}

}  // namespace lumora
