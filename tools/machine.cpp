#include "tools/machine.h"

#include "tools/programs.h"

namespace lumora::tools {

std::string firstLineOf(const std::string& command) {
  const std::string output = outputOf(command);
  return output.substr(0, output.find('\n'));
}

std::map<std::string, std::string> describeMachine() {
  constexpr std::pair<const char*, const char*> commands[] = {
      {"date", "date -u +%FT%TZ"},
      {"system", "sed -n 's/^PRETTY_NAME=//p' /etc/os-release"},
      {"kernel", "uname -srm"},
      {"cpu", "LC_ALL=C lscpu | sed -n 's/^Model name: *//p'"},
      {"cores", "nproc"},
      {"memory", "sed -n 's/^MemTotal: *//p' /proc/meminfo"},
      {"devices", "ls -d /dev/dri/* /dev/nvidia* /dev/video* 2>/dev/null | tr '\\n' ' '"},
      // x264 names itself in the first access unit of a stream.
      {"x264",
       "ffmpeg -v error -f lavfi -i color=size=64x64 -frames:v 1 -c:v libx264 -f h264 - |"
       " grep -aom1 'core [0-9]* r[0-9]*' || true"},
      {"ffmpeg", "ffmpeg -version | sed -n 's/^ffmpeg version \\([^ ]*\\).*/\\1/p'"}};
  std::map<std::string, std::string> described = {{"program", LUMORA_VERSION}};
  for (const auto& [name, command] : commands) {
    const std::string line = firstLineOf(command);
    described[name] = line.empty() ? "not found" : line;
  }
  return described;
}

}  // namespace lumora::tools
