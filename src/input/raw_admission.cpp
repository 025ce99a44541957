#include "input/raw_admission.h"

namespace lumora {

bool RawAdmission::admit() {
  const std::lock_guard hold(admission);
  if (rawBusy) {
    ++droppedRaw;
    return false;
  }
  rawBusy = true;
  return true;
}

void RawAdmission::release() {
  const std::lock_guard hold(admission);
  rawBusy = false;
}

void RawAdmission::countDropped() {
  const std::lock_guard hold(admission);
  ++droppedRaw;
}

RawAdmission::Figures RawAdmission::figures() {
  const std::lock_guard hold(admission);
  return {rawBusy, droppedRaw};
}

}  // namespace lumora
