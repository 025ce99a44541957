#include "bench/machine.h"

#include "tools/programs.h"

namespace lumora::bench {

nlohmann::json describeMachine() {
  constexpr std::pair<const char*, const char*> commands[] = {
      {"date", "date -u +%FT%TZ"},
      {"cpu", "LC_ALL=C lscpu | sed -n 's/^Model name: *//p'"},
      {"cores", "nproc"},
      {"kernel", "uname -sr"},
      {"commit", "git describe --always --dirty 2>/dev/null || echo unknown"},
      {"libavcodec", "pkg-config --modversion libavcodec"},
      // It names itself in the first access unit of a stream.
      {"x264",
       "ffmpeg -v error -f lavfi -i color=size=64x64 -frames:v 1 -c:v libx264 -f h264 - |"
       " grep -aom1 'core [0-9]* r[0-9]*'"},
      {"ffmpeg", "ffmpeg -version | sed -n 's/^ffmpeg version \\([^ ]*\\).*/\\1/p'"}};
  nlohmann::json described = {{"program", LUMORA_VERSION}};
  for (const auto& [name, command] : commands) {
    const std::string output = tools::outputOf(command);
    described[name] = output.substr(0, output.find('\n'));
  }
  return described;
}

}  // namespace lumora::bench
