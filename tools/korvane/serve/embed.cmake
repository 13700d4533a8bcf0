# Writes the files of the page into a source file: cmake -DOUTPUT=... -DFOLDER=... -P embed.cmake
set(arrays "")
set(rows "")
set(type_html "text/html")
set(type_css "text/css")
set(type_js "text/javascript")
file(GLOB files RELATIVE "${FOLDER}" "${FOLDER}/*.html" "${FOLDER}/*.css" "${FOLDER}/*.js")
foreach(file ${files})
  string(REGEX REPLACE "^index[.]html$" "" path "${file}")
  string(REGEX MATCH "[a-z]+$" ending "${file}")
  string(MAKE_C_IDENTIFIER "k_${file}" name)
  file(READ "${FOLDER}/${file}" bytes HEX)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
  string(APPEND arrays "constexpr unsigned char ${name}[] = {${bytes}};\n")
  string(APPEND rows "      {\"/${path}\", \"${type_${ending}}; charset=utf-8\", ${name}, sizeof(${name})},\n")
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
