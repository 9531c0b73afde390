#include "Platform/Linux/Identity/ProxyTrialThread.h"

#include <poll.h>
#include <pthread.h>

#include <algorithm>
#include <memory>
#include <set>
#include <utility>

#include "Platform/Linux/Processes/UserName.h"

namespace ostravel::linuxplatform {

ProxyTrialThread::ProxyTrialThread(std::uint16_t port, ProcessTableSource processes)
    : port_(port), processes_(std::move(processes)), thread_([this] { run(); }) {}

ProxyTrialThread::~ProxyTrialThread() {
  {
    const std::lock_guard guard(lock_);
    isStopping_ = true;
    changed_.signal();
  }
  thread_.join();
}

std::optional<ProxyTrialThread::Result> ProxyTrialThread::resultOf(
    const SocketInformation& listener, uid_t owner) {
  const std::lock_guard guard(lock_);
  if (!request_ || request_->listener.cookie != listener.cookie) {
    request_ = {listener, owner};
    result_.reset();
    changed_.signal();
  }
  return result_;
}

void ProxyTrialThread::run() {
  ::pthread_setname_np(::pthread_self(), "proxy-trial");
  // The listening socket to which the variables below refer; 0 is never a cookie.
  std::uint64_t tried = 0;
  std::optional<Clock::time_point> next;
  Clock::duration pause{};
  while (true) {
    std::optional<Request> request;
    {
      const std::lock_guard guard(lock_);
      changed_.consume();
      if (isStopping_) {
        return;
      }
      request = request_;
    }
    if (request && request->listener.cookie != tried) {
      tried = request->listener.cookie;
      next = Clock::now();
      pause = kFirstPause;
    }
    if (!request || !next || Clock::now() < *next) {
      wait(request ? next : std::nullopt);
      continue;
    }
    auto result = tryOnce(*request);
    next.reset();
    if (!result) {
      tried = 0;
    } else if (result->outcome.judgement == ProxyTrial::Judgement::unanswered) {
      next = Clock::now() + pause;
      pause = std::min<Clock::duration>(2 * pause, kLongestPause);
    }
    publish(request->listener.cookie, std::move(result));
  }
}

std::optional<ProxyTrialThread::Result> ProxyTrialThread::tryOnce(const Request& request) {
  Result result;
  auto opened = SocketDiagnostics::open();
  if (!opened) {
    result.outcome.answer = opened.error().localizedDescription;
    return result;
  }
  const auto diagnostics = *std::move(opened);
  auto outcome =
      ProxyTrial(*diagnostics, processes_, port_, request.listener.cookie, changed_.descriptor())
          .run();
  if (!outcome) {
    return std::nullopt;
  }
  result.outcome = std::move(*outcome);
  std::set<uid_t> users{request.listener.uid, request.owner};
  if (result.outcome.acceptor) {
    users.insert(result.outcome.acceptor->stamp.uid);
  }
  for (const uid_t user : users) {
    result.userNames[user] = nameOfUser(user);
  }
  return result;
}

void ProxyTrialThread::publish(std::uint64_t listener, std::optional<Result> result) {
  const std::lock_guard guard(lock_);
  if (!request_ || request_->listener.cookie != listener) {
    return;
  }
  if (!result) {
    // The socket no longer listens; otherwise it will be requested again.
    request_.reset();
  }
  result_ = std::move(result);
}

void ProxyTrialThread::wait(std::optional<Clock::time_point> until) {
  int timeout = -1;
  if (until) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*until - Clock::now());
    timeout = static_cast<int>(std::max(left, std::chrono::milliseconds::zero()).count());
  }
  pollfd waited{changed_.descriptor(), POLLIN, 0};
  ::poll(&waited, 1, timeout);
}

}  // namespace ostravel::linuxplatform
