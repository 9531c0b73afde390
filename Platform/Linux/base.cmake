# The base services of the Linux platform: queues, timers, logs, sockets.
pkg_check_modules(LIBSYSTEMD REQUIRED IMPORTED_TARGET libsystemd)

add_library(LinuxBase STATIC
  ${CMAKE_CURRENT_LIST_DIR}/CgroupRoot.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CrashHandler.cpp
  ${CMAKE_CURRENT_LIST_DIR}/EventDescriptor.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Guardian.cpp
  ${CMAKE_CURRENT_LIST_DIR}/HangDetector.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Heartbeat.cpp
  ${CMAKE_CURRENT_LIST_DIR}/HeartbeatParticipants.cpp
  ${CMAKE_CURRENT_LIST_DIR}/HeartbeatRecord.cpp
  ${CMAKE_CURRENT_LIST_DIR}/JournalLog.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LinuxDispatchQueue.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LinuxDispatchTimer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LinuxPlatform.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LinuxSocketCalls.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LogLine.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ProcessLife.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RandomUUIDSource.cpp
  ${CMAKE_CURRENT_LIST_DIR}/StderrLog.cpp
  ${CMAKE_CURRENT_LIST_DIR}/TimerService.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Utf8.cpp
  ${CMAKE_CURRENT_LIST_DIR}/WorkerPool.cpp)
target_link_libraries(LinuxBase
  PUBLIC ostravel_base PlatformInterface PlatformPOSIX PlatformICU Threads::Threads
  PRIVATE PkgConfig::LIBSYSTEMD)
