# Precompiles, once, what most sources include, and gives it to every target.
find_package(GTest REQUIRED)
file(WRITE ${CMAKE_BINARY_DIR}/precompiled_headers.cpp "")
add_library(precompiled_headers OBJECT ${CMAKE_BINARY_DIR}/precompiled_headers.cpp)
target_link_libraries(precompiled_headers PRIVATE ostravel_options GTest::gtest)
target_precompile_headers(precompiled_headers PRIVATE
  <algorithm> <array> <atomic> <chrono> <condition_variable> <cstddef> <cstdint> <cstring> <deque>
  <filesystem> <fstream> <functional> <future> <map> <memory> <mutex> <optional> <set> <span> <sstream>
  <string> <string_view> <thread> <unordered_map> <utility> <variant> <vector> <gtest/gtest.h>)

function(use_precompiled_headers target)
  get_target_property(type ${target} TYPE)
  get_target_property(sources ${target} SOURCES)
  # Objective-C++ and position-independent code would need headers of their own.
  if(type MATCHES "^(STATIC_LIBRARY|OBJECT_LIBRARY|EXECUTABLE)$" AND NOT sources MATCHES "\\.mm")
    target_precompile_headers(${target} REUSE_FROM precompiled_headers)
  endif()
endfunction()

function(use_precompiled_headers_below directory)
  get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
  list(REMOVE_ITEM targets precompiled_headers)
  foreach(target ${targets})
    use_precompiled_headers(${target})
  endforeach()
  get_property(folders DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
  foreach(folder ${folders})
    use_precompiled_headers_below(${folder})
  endforeach()
endfunction()

use_precompiled_headers_below(${PROJECT_SOURCE_DIR})
