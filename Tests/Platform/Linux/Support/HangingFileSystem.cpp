#include "Tests/Platform/Linux/Support/HangingFileSystem.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

namespace ostravel::testing {

namespace {

constexpr std::uint64_t kProgramNode = 2;
// More than the largest request, a write of this size with its header.
constexpr std::size_t kRequestSize = 256 * 1024;

// Answers the kernel's requests (fuse(4), linux/fuse.h).
class Server {
 public:
  Server(int device, std::string content) : device_(device), content_(std::move(content)) {}

  void run() {
    std::vector<char> request(kRequestSize);
    while (true) {
      const auto length = ::read(device_, request.data(), request.size());
      if (length < 0 && errno == ENODEV) {
        return;
      }
      if (length >= static_cast<ssize_t>(sizeof(fuse_in_header))) {
        fuse_in_header header{};
        std::memcpy(&header, request.data(), sizeof header);
        answer(header, request.data() + sizeof header);
      }
    }
  }

 private:
  template <typename Body>
  void reply(const fuse_in_header& header, const Body& body) {
    reply(header, 0, std::string_view(reinterpret_cast<const char*>(&body), sizeof body));
  }

  void reply(const fuse_in_header& header, int error, std::string_view body) {
    fuse_out_header out{};
    out.len = static_cast<std::uint32_t>(sizeof out + body.size());
    out.error = -error;
    out.unique = header.unique;
    const std::array<iovec, 2> parts{
        {{&out, sizeof out}, {const_cast<char*>(body.data()), body.size()}}};
    // The request may have been cancelled.
    [[maybe_unused]] const auto written =
        ::writev(device_, parts.data(), static_cast<int>(parts.size()));
  }

  fuse_attr attributes(std::uint64_t node) const {
    fuse_attr attributes{};
    attributes.ino = node;
    attributes.nlink = 1;
    attributes.mode = node == kProgramNode ? S_IFREG | 0755 : S_IFDIR | 0755;
    attributes.size = node == kProgramNode ? content_.size() : 0;
    return attributes;
  }

  void answer(const fuse_in_header& header, const char* body) {
    switch (header.opcode) {
      case FUSE_INIT: {
        fuse_init_out out{};
        out.major = FUSE_KERNEL_VERSION;
        out.minor = FUSE_KERNEL_MINOR_VERSION;
        out.max_write = 4096;
        return reply(header, out);
      }
      case FUSE_LOOKUP: {
        if (std::string_view(body) != "program") {
          return reply(header, ENOENT, {});
        }
        fuse_entry_out out{};
        out.nodeid = kProgramNode;
        out.attr = attributes(kProgramNode);
        return reply(header, out);
      }
      case FUSE_GETATTR: {
        fuse_attr_out out{};
        out.attr = attributes(header.nodeid);
        return reply(header, out);
      }
      case FUSE_OPEN: {
        fuse_open_out out{};
        out.open_flags = FOPEN_KEEP_CACHE;
        return reply(header, out);
      }
      case FUSE_READ: {
        fuse_read_in in{};
        std::memcpy(&in, body, sizeof in);
        const auto start = std::min<std::size_t>(in.offset, content_.size());
        return reply(header, 0, std::string_view(content_).substr(start, in.size));
      }
      case FUSE_FORGET:
      case FUSE_BATCH_FORGET:
      case FUSE_INTERRUPT:
        return;
      case FUSE_FLUSH:
      case FUSE_RELEASE:
        return reply(header, 0, {});
      default:
        return reply(header, ENOSYS, {});
    }
  }

  const int device_;
  const std::string content_;
};

}  // namespace

HangingFileSystem::HangingFileSystem(std::string folder, const std::string& program,
                                     const Mount& mount)
    : folder_(std::move(folder)) {
  std::ifstream file(program, std::ios::binary);
  std::string content{std::istreambuf_iterator<char>(file), {}};
  const int device = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
  EXPECT_GE(device, 0) << "/dev/fuse: " << std::strerror(errno);
  const std::string options = "fd=" + std::to_string(device) + ",rootmode=40000,group_id=" +
                              std::to_string(mount.onlyFor.value_or(0)) +
                              ",user_id=" + std::to_string(mount.onlyFor.value_or(0)) +
                              (mount.onlyFor ? "" : ",allow_other");
  EXPECT_EQ(::mount(mount.source.c_str(), folder_.c_str(), "fuse", 0, options.c_str()), 0)
      << std::strerror(errno);
  server_ = ::fork();
  EXPECT_GE(server_, 0);
  if (server_ == 0) {
    Server(device, std::move(content)).run();
    ::_exit(0);
  }
  // Closing the last descriptor, the server's, fails all pending requests.
  ::close(device);
}

HangingFileSystem::~HangingFileSystem() {
  ::kill(server_, SIGKILL);
  EXPECT_EQ(::waitpid(server_, nullptr, 0), server_);
  EXPECT_EQ(::umount2(folder_.c_str(), MNT_DETACH), 0);
}

void HangingFileSystem::hang() {
  ::kill(server_, SIGSTOP);
  int status = 0;
  EXPECT_EQ(::waitpid(server_, &status, WUNTRACED), server_);
  EXPECT_TRUE(WIFSTOPPED(status));
}

}  // namespace ostravel::testing
