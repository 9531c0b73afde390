# Event loops and everything between the verdict on a flow's first packet and the bytes.
find_path(ASIO_INCLUDE_DIRECTORY asio.hpp REQUIRED)

add_library(LinuxRelay STATIC
  ${CMAKE_CURRENT_LIST_DIR}/BufferPool.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DescriptorBudget.cpp
  ${CMAKE_CURRENT_LIST_DIR}/EventLoop.cpp
  ${CMAKE_CURRENT_LIST_DIR}/EventLoopGroup.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FlowListener.cpp
  ${CMAKE_CURRENT_LIST_DIR}/KernelAddress.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LingeringSocket.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LinuxTCPConnection.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LinuxTCPFlow.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LinuxUDPFlow.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LoopSocket.cpp
  ${CMAKE_CURRENT_LIST_DIR}/PipeChunk.cpp
  ${CMAKE_CURRENT_LIST_DIR}/PipePool.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RedirectPath.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RedirectTrial.cpp
  ${CMAKE_CURRENT_LIST_DIR}/StreamRegistry.cpp
  ${CMAKE_CURRENT_LIST_DIR}/StreamSocket.cpp)
# Whether Asio sees aligned allocation depends on what was included before it; without it, every
# source agrees on how memory is taken and given back.
target_compile_definitions(LinuxRelay PUBLIC
  ASIO_STANDALONE ASIO_NO_DEPRECATED ASIO_DISABLE_STD_ALIGNED_ALLOC)
target_link_libraries(LinuxRelay PUBLIC ostravel_base PlatformInterface LinuxNetwork Threads::Threads)
