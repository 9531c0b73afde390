#include "Platform/Linux/TimerService.h"

#include <pthread.h>

namespace ostravel::linuxplatform {

TimerService::TimerService()
    : keepsRunning_(context_.get_executor()), thread_([this] { context_.run(); }) {
  ::pthread_setname_np(thread_.native_handle(), "ostravel-timer");
}

TimerService::~TimerService() {
  stop();
}

void TimerService::stop() {
  if (thread_.joinable()) {
    context_.stop();
    thread_.join();
  }
}

}  // namespace ostravel::linuxplatform
