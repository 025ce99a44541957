#pragma once

#include <atomic>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string_view>

#include "codec/allowed_encoders.h"
#include "codec/encoder_opening.h"

namespace lumora {

constexpr EncoderSettings preview{SessionKind::preview, 2, 2, {}, 60, 60, 4000000};
constexpr EncoderSettings take{SessionKind::recording, 2, 2, {}, 60, 60, 1000000};
constexpr EncoderSettings slowTake{SessionKind::recording, 2, 2, {}, 15, 15, 1000000};

// The driver of "h264_nvenc", which encodes in software; all other hardware is missing.
struct Driver {
  enum Behaviour { works, refuses, hangs, throws };
  std::atomic<Behaviour> behaviour = works;
  std::atomic<int> opened = 0;
  std::atomic<bool> othersAsked = false;
  int limit = 99;  // encoders at once
  std::promise<void> release;
  std::shared_future<void> released = release.get_future();
  std::mutex mutex;
  std::vector<std::weak_ptr<PicturePool>> inUse = {};  // each encoder has a pool of its own

  Status open(const AVCodec& codec, const EncoderSettings& settings,
              std::unique_ptr<LibavEncoder>& encoder) {
    const auto pictures = PicturePool::make();
    if (isHardware(codec)) {
      if (std::string_view(codec.name) != "h264_nvenc") {
        othersAsked = true;
        return AVERROR(ENODEV);
      }
      const Behaviour now = behaviour;
      if (now == hangs) released.wait();
      if (now == throws) throw std::runtime_error("a driver's");
      if (now == refuses) return AVERROR(EBUSY);
      const std::lock_guard hold(mutex);
      std::erase_if(inUse, [](const auto& pool) { return pool.expired(); });
      if (static_cast<int>(inUse.size()) == limit) return AVERROR(EBUSY);
      inUse.push_back(pictures);
      ++opened;
    }
    return LibavEncoder::open(*avcodec_find_encoder_by_name(softwareEncoder), "", {}, pictures,
                              settings, encoder);
  }
};

}  // namespace lumora
