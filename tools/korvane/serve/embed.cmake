# Writes the files of the page into a source file: cmake -DOUTPUT=... -DFOLDER=... -P embed.cmake
set(arrays "")
set(rows "")
foreach(row "/|index.html|text/html; charset=utf-8" "/style.css|style.css|text/css; charset=utf-8"
            "/page.js|page.js|text/javascript; charset=utf-8")
  string(REGEX MATCH "^([^|]*)[|]([^|]*)[|](.*)$" fields "${row}")
  set(path "${CMAKE_MATCH_1}")
  set(file "${CMAKE_MATCH_2}")
  set(type "${CMAKE_MATCH_3}")
  string(MAKE_C_IDENTIFIER "k_${file}" name)
  file(READ "${FOLDER}/${file}" bytes HEX)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
  string(APPEND arrays "constexpr unsigned char ${name}[] = {${bytes}};\n")
  string(APPEND rows "      {\"${path}\", \"${type}\", ${name}, sizeof(${name})},\n")
endforeach()
file(WRITE "${OUTPUT}" "#include \"serve/site.h\"\n
namespace korvane_tool {
namespace {
${arrays}}  // namespace\n
const std::vector<PageFile>& PageFiles() {
  static const std::vector<PageFile> files{
${rows}  };
  return files;
}\n
}  // namespace korvane_tool\n")
