# Writes the files of the page into a C++ header:
#   cmake -DFOLDER=... -DOUTPUT=... -P this
set(names index.html app.js style.css uPlot.js uPlot.css)
set(types html javascript css javascript css)
# Per line: sixteen bytes of five characters each.
string(REPEAT "." 80 line)
set(arrays "")
set(table "")
foreach(name type IN ZIP_LISTS names types)
  file(READ ${FOLDER}/${name} bytes HEX)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
  string(REGEX REPLACE "(${line})" "\\1\n" bytes "${bytes}")
  string(MAKE_C_IDENTIFIER ${name} identifier)
  string(APPEND arrays
    "inline constexpr unsigned char kFile_${identifier}[] = {\n${bytes}\n};\n\n")
  if(name STREQUAL "index.html")
    set(path "/")
  else()
    set(path "/${name}")
  endif()
  string(APPEND table
    "    {\"${path}\", \"text/${type}; charset=utf-8\", kFile_${identifier}, sizeof kFile_${identifier}},\n")
endforeach()
file(WRITE ${OUTPUT} "#pragma once

#include <cstddef>

namespace ostravel::companion {

struct PageFile {
  const char* path;
  const char* type;
  const unsigned char* bytes;
  std::size_t size;
};

${arrays}inline constexpr PageFile kPageFiles[] = {
${table}};

}  // namespace ostravel::companion
")
