#include "codec/libav_encoders.h"

#include <utility>

#include "base/out_of_memory.h"
#include "codec/libav_session.h"

namespace lumora {
namespace {

// An encoder allocates its pictures one by one, with the frames that it gets. The preview's has all
// of them before anybody is told that the service is ready; a take's finds memory that was touched.
constexpr int picturesToWarm = 4;

// The first candidate that works for the preview, whose encoder becomes a spare one, or for a take,
// since one that can't take a tiny preview may still record; null when none does.
const AVCodec* chooseEncoder(const std::vector<std::string>& names, EncoderSource source,
                             const EncoderSettings& preview, const EncoderSettings& take) {
  for (const std::string& name : names) {
    source.spec.codec = avcodec_find_encoder_by_name(name.c_str());
    if (source.spec.codec == nullptr || source.spec.codec->id != AV_CODEC_ID_H264) continue;
    const auto deadline = OpeningClock::now() + longestOpening;
    const auto open = [&](const EncoderSettings& settings) {
      return openBy(deadline, source.open, source.spec, settings, picturesToWarm);
    };
    if (OpenResult opened = open(preview); opened.encoder) {
      bestEffort([&] { source.giveBack(preview, std::move(opened)); });
      return source.spec.codec;
    }
    if (open(take).encoder) return source.spec.codec;
  }
  return nullptr;
}

// What a take of this size touches, encoder and pixel buffer: measured, with the gaps that aligned
// blocks leave in the heap.
std::size_t workingMemory(const EncoderSettings& settings) {
  return static_cast<std::size_t>(settings.width) * static_cast<std::size_t>(settings.height) * 44;
}

}  // namespace

LibavEncoders::LibavEncoders(EncoderChoice choice, std::shared_ptr<SerialQueue> stateQueue,
                             std::shared_ptr<Dispatch> dispatch,
                             std::shared_ptr<PicturePool> pictures, OpenEncoder open,
                             std::function<void()> giveMemoryBack)
    : stateQueue_(std::move(stateQueue)),
      dispatch_(std::move(dispatch)),
      opener_(dispatch_->makeQueue("lumora.opener")),
      giveMemoryBack_(std::move(giveMemoryBack)),
      choice_(std::move(choice)),
      source_{.spec = {.preset = choice_.preset, .pictures = std::move(pictures)},
              .open = std::move(open),
              .substitute =
                  choice_.substitute ? avcodec_find_encoder_by_name(softwareEncoder) : nullptr,
              .spares = std::make_shared<SpareEncoders>(opener_, giveMemoryBack_)},
      codec_(chosen_.get_future()) {}

void LibavEncoders::choose(const EncoderSettings& preview, const EncoderSettings& take) {
  // Without a substitute there is nothing to go on with, so every candidate has its second.
  const auto patience = source_.substitute == nullptr ? choice_.names.size() : 1;
  chosenBy_ = OpeningClock::now() + patience * longestOpening;
  opener_->async([self = shared_from_this(), preview, take] {
    const AVCodec* codec = nullptr;
    bestEffort([&] { codec = chooseEncoder(self->choice_.names, self->source_, preview, take); });
    self->chosen_.set_value(codec);
  });
}

void LibavEncoders::whenChosen(Work work) {
  opener_->async([queue = stateQueue_, work = std::move(work)] { queue->async(work); });
}

void LibavEncoders::warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) {
  const auto touch = [self = shared_from_this(), likeliest, largest, stop = needed_.get_token()] {
    const AVCodec* codec = self->codec_.get();
    if (codec == nullptr) return;
    if (!isHardware(*codec)) {
      touchMemoryAhead(workingMemory(largest), stop);
      self->opener_->asyncAfter(SpareEncoders::lifetime, [giveBack = self->giveMemoryBack_, stop] {
        if (!stop.stop_requested()) giveBack();
      });
    }
    self->source_.spares->wantFirst(likeliest);
    self->openInBackground(std::nullopt);
  };
  bestEffort([&] { dispatch_->runDetached("lumora.memory", touch); });
}

void LibavEncoders::openAhead(const EncoderSettings& settings) {
  needed_.request_stop();  // what is touched by now is needed by now
  source_.spares->want(settings);
  bestEffort([&] { openInBackground(settings); });
}

// Opens what is wanted, then touches a buffer for a session with settings of `buffer`.
void LibavEncoders::openInBackground(const std::optional<EncoderSettings>& buffer) {
  opener_->async([self = shared_from_this(), buffer] {
    EncoderSource source = self->source_;
    source.spec.codec = self->codec_.get();
    if (source.spec.codec == nullptr) return;
    source.openWanted();
    if (buffer) touchPixelBuffer(source.spec, *buffer);
  });
}

EncoderSource LibavEncoders::chosenSource() const {
  EncoderSource source = source_;
  if (codec_.wait_until(chosenBy_) == std::future_status::ready) {
    source.spec.codec = codec_.get();
  } else {
    // A driver that hangs is not waited for, nor are the spare encoders that would come after it.
    source.spec.codec = source.substitute;
    source.spares = std::make_shared<SpareEncoders>(opener_, giveMemoryBack_);
  }
  return source;
}

// Which hardware requirement the run has was said with the choice, not with the session: a
// machine without a hardware encoder gets the software one only where the choice allows it.
Status LibavEncoders::createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                                    const EncoderRequirements&,
                                    std::shared_ptr<CompressionSession>& session) {
  EncoderSource source = chosenSource();
  if (source.spec.codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
  session = std::make_shared<LibavSession>(std::move(source), kind, width, height);
  return 0;
}

}  // namespace lumora
