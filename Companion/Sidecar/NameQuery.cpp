#include "Companion/Sidecar/NameQuery.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <asio/post.hpp>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

namespace ostravel::companion {
namespace {

asio::error_code errorOf(int status) {
  switch (status) {
    case ARES_SUCCESS:
      return {};
    case ARES_ENOTFOUND:
    case ARES_ENODATA:
    case ARES_EBADNAME:
      return asio::error::host_not_found;
    case ARES_ETIMEOUT:
      return asio::error::timed_out;
    case ARES_ENOMEM:
      return asio::error::no_memory;
    default:
      return asio::error::host_not_found_try_again;
  }
}

LookupResult endpointsOf(const ares_addrinfo* result, std::uint16_t port) {
  LookupResult endpoints;
  const ares_addrinfo_node* node = result == nullptr ? nullptr : result->nodes;
  for (; node != nullptr; node = node->ai_next) {
    asio::ip::tcp::endpoint endpoint;
    if (node->ai_addrlen > endpoint.capacity()) {
      continue;
    }
    std::memcpy(endpoint.data(), node->ai_addr, node->ai_addrlen);
    endpoint.resize(node->ai_addrlen);
    endpoint.port(port);
    endpoints.push_back(endpoint);
  }
  return endpoints;
}

// Initialises the library once per process, before the first channel (ares_library_init(3)).
int statusOfLibrary() {
  static const int status = ::ares_library_init(ARES_LIB_INIT_ALL);
  return status;
}

}  // namespace

NameQuery::NameQuery(asio::any_io_executor executor, std::uint16_t port, LookupDone done)
    : executor_(std::move(executor)), port_(port), done_(std::move(done)), timeout_(executor_) {}

NameQuery::~NameQuery() {
  if (channel_ != nullptr) {
    ::ares_destroy(channel_);
  }
}

void NameQuery::start(const std::string& name, const ResolverSettings& settings) {
  ares_options options{};
  options.sock_state_cb = socketChanged;
  options.sock_state_cb_data = this;
  options.timeout = static_cast<int>(settings.timeout.count());
  int status = statusOfLibrary();
  if (status == ARES_SUCCESS) {
    status = ::ares_init_options(&channel_, &options, ARES_OPT_SOCK_STATE_CB | ARES_OPT_TIMEOUTMS);
  }
  if (status == ARES_SUCCESS && !settings.nameServers.empty()) {
    status = ::ares_set_servers_ports_csv(channel_, settings.nameServers.c_str());
  }
  if (status != ARES_SUCCESS) {
    finish(errorOf(status), {});
    return;
  }
  ares_addrinfo_hints hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  ::ares_getaddrinfo(channel_, name.c_str(), nullptr, &hints, answered, this);
  waitForSockets();
  waitForTimeout();
}

void NameQuery::finish(asio::error_code error, LookupResult endpoints) {
  asio::post(executor_, [query = weak_from_this(), error, endpoints = std::move(endpoints)] {
    // Keeps the query alive while the completion runs, which may release it.
    if (const std::shared_ptr<NameQuery> self = query.lock()) {
      const LookupDone done = std::exchange(self->done_, nullptr);
      done(error, endpoints);
    }
  });
}

void NameQuery::socketChanged(void* query, ares_socket_t socket, int wantsRead, int wantsWrite) {
  static_cast<NameQuery*>(query)->watch(socket, wantsRead != 0, wantsWrite != 0);
}

void NameQuery::answered(void* query, int status, int /*timeouts*/, ares_addrinfo* result) {
  if (status == ARES_EDESTRUCTION) {
    return;
  }
  auto* const self = static_cast<NameQuery*>(query);
  LookupResult endpoints = endpointsOf(result, self->port_);
  ::ares_freeaddrinfo(result);
  asio::error_code error = errorOf(status);
  if (!error && endpoints.empty()) {
    error = asio::error::host_not_found;
  }
  self->finish(error, std::move(endpoints));
}

void NameQuery::watch(ares_socket_t socket, bool wantsRead, bool wantsWrite) {
  if (!wantsRead && !wantsWrite) {
    // The resolver is about to close it.
    if (const auto found = sockets_.find(socket); found != sockets_.end()) {
      found->second->descriptor.release();
      sockets_.erase(found);
    }
    return;
  }
  std::shared_ptr<WatchedSocket>& watched = sockets_[socket];
  if (!watched) {
    watched = std::make_shared<WatchedSocket>(
        WatchedSocket{.descriptor = asio::posix::stream_descriptor(executor_)});
    // No exception may pass through the resolver. A socket that cannot be watched times out.
    asio::error_code ignored;
    watched->descriptor.assign(socket, ignored);
  }
  watched->wantsRead = wantsRead;
  watched->wantsWrite = wantsWrite;
}

// Not from `watch`: the resolver must not be entered again while it changes its sockets.
void NameQuery::waitForSockets() {
  for (const auto& [number, socket] : sockets_) {
    if (socket->wantsRead && !socket->waitsForRead) {
      waitForSocket(number, socket, &WatchedSocket::waitsForRead);
    }
    if (socket->wantsWrite && !socket->waitsForWrite) {
      waitForSocket(number, socket, &WatchedSocket::waitsForWrite);
    }
  }
}

void NameQuery::waitForSocket(ares_socket_t number, const std::shared_ptr<WatchedSocket>& socket,
                              bool WatchedSocket::*waits) {
  const bool isRead = waits == &WatchedSocket::waitsForRead;
  (*socket).*waits = true;
  socket->descriptor.async_wait(isRead ? asio::posix::stream_descriptor::wait_read
                                       : asio::posix::stream_descriptor::wait_write,
                                [query = weak_from_this(), watched = std::weak_ptr(socket), number,
                                 waits, isRead](asio::error_code error) {
                                  const std::shared_ptr<NameQuery> self = query.lock();
                                  const std::shared_ptr<WatchedSocket> ready = watched.lock();
                                  // If the socket is gone, its number may already be reused.
                                  if (!self || !ready) {
                                    return;
                                  }
                                  (*ready).*waits = false;
                                  if (!error) {
                                    self->process(isRead ? number : ARES_SOCKET_BAD,
                                                  isRead ? ARES_SOCKET_BAD : number);
                                  }
                                });
}

void NameQuery::waitForTimeout() {
  timeval time{};
  if (::ares_timeout(channel_, nullptr, &time) == nullptr) {
    timeout_.cancel();
    return;
  }
  timeout_.expires_after(std::chrono::seconds(time.tv_sec) +
                         std::chrono::microseconds(time.tv_usec));
  timeout_.async_wait([query = weak_from_this()](asio::error_code error) {
    const std::shared_ptr<NameQuery> self = query.lock();
    if (self && !error) {
      self->process(ARES_SOCKET_BAD, ARES_SOCKET_BAD);
    }
  });
}

void NameQuery::process(ares_socket_t readable, ares_socket_t writable) {
  ::ares_process_fd(channel_, readable, writable);
  waitForSockets();
  waitForTimeout();
}

}  // namespace ostravel::companion
