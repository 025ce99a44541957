# Writes a C++ source with the contents of FILES and a function that finds them by name:
#   cmake -DOUTPUT=page_files.cpp "-DFILES=a;b" -P embed_files.cmake
set(arrays "")
set(entries "")
set(number 0)
foreach(file IN LISTS FILES)
  get_filename_component(name ${file} NAME)
  file(READ ${file} bytes HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  string(APPEND arrays "constexpr char file${number}[] = {${bytes}'\\0'};\n")
  string(APPEND entries "    {\"${name}\", {file${number}, sizeof file${number} - 1}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUTPUT} "#include \"tools/viewer/page_files.h\"

#include <utility>

namespace lumora::viewer {
namespace {

${arrays}
constexpr std::pair<std::string_view, std::string_view> files[] = {
${entries}};

}  // namespace

std::optional<std::string_view> pageFile(std::string_view name) {
  for (const auto& [known, bytes] : files) {
    if (known == name) return bytes;
  }
  return std::nullopt;
}

}  // namespace lumora::viewer
")
