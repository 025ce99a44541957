#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "client/frame_loan.h"

namespace lumora::client {

// Buffers for frames, kept between them. Any thread.
class FrameBuffers : public std::enable_shared_from_this<FrameBuffers> {
 public:
  static constexpr int count = 3;  // one is written, one waits, one is rendered into

  // Null when all are lent. Throws std::bad_alloc.
  std::unique_ptr<Frame::Loan> lend(std::size_t bytes);

 private:
  class Loan;
  struct Buffer {
    std::unique_ptr<std::uint8_t[]> bytes;
    std::size_t size = 0;
  };
  void giveBack(Buffer buffer);

  std::mutex mutex_;
  int lent_ = 0;
  std::vector<Buffer> idle_;
};

}  // namespace lumora::client
