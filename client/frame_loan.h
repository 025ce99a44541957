#pragma once

#include <lumora/frame.h>

#include <mutex>
#include <vector>

namespace lumora::client {

// Buffers for frames, kept between them. Any thread.
class FrameBuffers : public std::enable_shared_from_this<FrameBuffers> {
 public:
  static constexpr int count = 3;  // one is written, one waits, one is rendered into

  // Null when all are lent. Throws std::bad_alloc.
  std::unique_ptr<Frame::Loan> lend(std::size_t bytes);

 private:
  friend class Frame::Loan;
  void giveBack(std::vector<std::uint8_t> buffer);

  std::mutex mutex_;
  int lent_ = 0;
  std::vector<std::vector<std::uint8_t>> idle_;
};

class Frame::Loan {
 public:
  Loan(std::shared_ptr<FrameBuffers> from, std::vector<std::uint8_t> buffer)
      : from_(std::move(from)), buffer_(std::move(buffer)) {}
  ~Loan() { from_->giveBack(std::move(buffer_)); }
  Loan(const Loan&) = delete;
  Loan& operator=(const Loan&) = delete;

  std::uint8_t* pixels() { return buffer_.data(); }

 private:
  std::shared_ptr<FrameBuffers> from_;
  std::vector<std::uint8_t> buffer_;
};

}  // namespace lumora::client
