# Read right after project() when the extension is built for the Mac on another machine: replaces
# the headers and tools of Apple.

# The C and C++ headers are this machine's, and come precompiled with the target's own names and
# types put right; see StandardHeaders.h.
set(resources ${OSTRAVEL_CLANG_RESOURCES})
add_compile_options(
  -U__APPLE__ -U__nonnull -D__linux__ -D__x86_64__ -D_GNU_SOURCE
  -Wno-macro-redefined -Wno-builtin-macro-redefined
  # A folder with one precompiled header for each architecture.
  -include ${OSTRAVEL_CROSS_HEADERS}
  -nostdinc++ "SHELL:-isystem ${OSTRAVEL_LIBCXX_HEADERS}"
  "SHELL:-isystem ${resources}/include"
  "SHELL:-isystem /usr/include/x86_64-linux-gnu" "SHELL:-isystem /usr/include"
  -I${CMAKE_SOURCE_DIR}/Tests/StandInMac/Declarations
  -I${CMAKE_SOURCE_DIR}/Tests/StandInMac/DarwinDeclarations)
# Sources in C++ are read with the same precompiled headers as those in Objective-C++.
add_compile_options("SHELL:-x objective-c++" -fblocks)

add_link_options(-fuse-ld=lld -nostdlib "SHELL:-lc++ -lobjc -lSystem"
  # The system's libraries are empty here; what is still missing is looked at afterwards.
  -Wl,-undefined,dynamic_lookup)

# The archiver has to know about universal objects.
foreach(language CXX OBJCXX)
  set(CMAKE_${language}_ARCHIVE_CREATE "${OSTRAVEL_LIBTOOL} -static -o <TARGET> <OBJECTS>")
  set(CMAKE_${language}_ARCHIVE_FINISH "")
endforeach()
