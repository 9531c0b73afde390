#include "Platform/Linux/Tracing/ConnectRecord.h"

#include "Platform/Linux/Tracing/KernelUnits.h"

namespace ostravel::linuxplatform {

ConnectRecord KernelConnectRecord::inUserUnits() const {
  return {.process = static_cast<pid_t>(process),
          .realUser = user,
          .user = effectiveUser,
          .startTime = clockTicks(startTimeNanoseconds),
          .stackStart = stackStart,
          .executable = {userDevice(executableDevice), executableInode}};
}

}  // namespace ostravel::linuxplatform
