#include "Platform/Linux/Names/ConfiguredResolvers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <sstream>
#include <utility>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"

namespace ostravel::linuxplatform {

namespace {

constexpr std::chrono::seconds kPause{1};
// The C library uses three of them (MAXNS of resolv.h).
constexpr std::size_t kMaximumServers = 8;
constexpr std::size_t kLargestFile = 65536;
constexpr std::uint16_t kPort = 53;
// Of systemd-resolved (systemd-resolved.service(8)), which applications ask by way of
// nsswitch.conf(5), too, and then resolv.conf may name the servers that it asks itself.
constexpr SocketEndpoint kResolved{AddressFamily::ipv4, {127, 0, 0, 53}, kPort};

bool isLoopback(const SocketEndpoint& endpoint) {
  SocketEndpoint loopback6{AddressFamily::ipv6, {}, 0};
  loopback6.address[15] = 1;
  return endpoint.family == AddressFamily::ipv4 ? endpoint.address[0] == 127
                                                : endpoint.address == loopback6.address;
}

std::string readAll(const FileDescriptor& file) {
  std::string text;
  std::array<char, 4096> part{};
  ssize_t size = 0;
  while (text.size() < kLargestFile && (size = ::read(file.get(), part.data(), part.size())) > 0) {
    text.append(part.data(), static_cast<std::size_t>(size));
  }
  return text;
}

}  // namespace

ConfiguredResolvers::ConfiguredResolvers(std::string path)
    : path_(std::move(path)), systemUsers_(SystemUsers::read()) {}

void ConfiguredResolvers::refresh(BootClock::time_point now) {
  if (lastLook_ && now - *lastLook_ < kPause) {
    return;
  }
  lastLook_ = now;
  read();
  // The resolver may be started or restarted at any time.
  findUsers();
}

void ConfiguredResolvers::read() {
  // Does not block if the path is a pipe.
  const FileDescriptor file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    version_.clear();
    servers_.clear();
    return;
  }
  std::vector<std::int64_t> version{static_cast<std::int64_t>(status.st_dev),
                                    static_cast<std::int64_t>(status.st_ino), status.st_mtim.tv_sec,
                                    status.st_mtim.tv_nsec, status.st_size};
  if (version == version_) {
    return;
  }
  version_ = std::move(version);
  servers_.clear();
  // Trusted only if root or a system service owns it and no one else can write to it.
  if (!systemUsers_.includes(status.st_uid) || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return;
  }
  std::istringstream lines(readAll(file));
  for (std::string line; std::getline(lines, line) && servers_.size() < kMaximumServers;) {
    std::istringstream words(line);
    std::string keyword;
    std::string address;
    words >> keyword >> address;
    if (keyword != "nameserver") {
      continue;
    }
    // A zone is not part of the address in a packet.
    if (const auto server = SocketEndpoint::atAddress(address.substr(0, address.find('%')))) {
      servers_.push_back(*server);
    }
  }
}

void ConfiguredResolvers::findUsers() {
  users_.clear();
  auto diagnostics = SocketDiagnostics::open();
  if (!diagnostics) {
    return;
  }
  std::vector<SocketEndpoint> local = servers_;
  local.push_back(kResolved);
  for (SocketEndpoint server : local) {
    if (!isLoopback(server)) {
      continue;
    }
    server.port = kPort;
    const auto answer = (*diagnostics)->findListener(server);
    if (answer && *answer && (*answer)->uid != 0 && systemUsers_.includes((*answer)->uid)) {
      users_.push_back((*answer)->uid);
    }
  }
}

bool ConfiguredResolvers::includes(const SocketEndpoint& server) const {
  return std::any_of(servers_.begin(), servers_.end(), [&server](const SocketEndpoint& each) {
    return each.family == server.family && each.address == server.address;
  });
}

bool ConfiguredResolvers::isResolver(uid_t user) const {
  return std::find(users_.begin(), users_.end(), user) != users_.end();
}

}  // namespace ostravel::linuxplatform
