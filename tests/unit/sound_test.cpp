// Sound: its format and its records.

#include <gtest/gtest.h>

#include "sound/sound_record.h"

namespace lumora {
namespace {

TEST(SoundFormat, IsARateAndOneOrTwoChannels) {
  EXPECT_EQ(parseSoundFormat("8000x1"), (SoundFormat{8000, 1}));
  EXPECT_EQ(parseSoundFormat("96000x2"), (SoundFormat{96000, 2}));
  for (const char* bad : {"", "48000", "48000x", "48000x0", "48000x3", "48000x02", "48000x2 ",
                          " 48000x2", "+48000x2", "-48000x2", "048000x2", "48000X2", "7999x2",
                          "96001x2", "4294975296x2", "99999999999999999999x2"})
    EXPECT_FALSE(parseSoundFormat(bad)) << bad;
  EXPECT_TRUE(trackRate(11025) == 11025 && trackRate(50000) == 48000);
}

TEST(SoundRecord, HasGrowingIdsWholeSamplesAndATimeOfNow) {
  const SoundFormat stereo{11025, 2};  // a quarter of a second is 2756 samples and a part of one
  EXPECT_TRUE(isValidSound(1, 0, 4, stereo) && isValidSound(9, 8, 2756 * 4, stereo));
  EXPECT_FALSE(isValidSound(0, 0, 4, stereo) || isValidSound(8, 8, 4, stereo));
  for (const std::uint32_t bytes : {0u, 6u, 2757u * 4, 0xFFFFFFFCu})
    EXPECT_FALSE(isValidSound(9, 8, bytes, stereo)) << bytes;
  EXPECT_TRUE(isTimely(100.0499, 100) && isTimely(70.001, 100));
  EXPECT_FALSE(isTimely(100.051, 100) || isTimely(69.999, 100));
}

}  // namespace
}  // namespace lumora
