# Converts a compiled program to C++ source: cmake -DINPUT=... -DOUTPUT=... -DNAME=... -P this
file(READ ${INPUT} bytes HEX)
string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
# Per line: sixteen bytes of five characters each.
string(REPEAT "." 80 line)
string(REGEX REPLACE "(${line})" "\\1\n" bytes "${bytes}")
file(WRITE ${OUTPUT} "#pragma once

namespace ostravel::linuxplatform {

alignas(8) inline constexpr unsigned char ${NAME}[] = {
${bytes}
};

}  // namespace ostravel::linuxplatform
")
