#pragma once

#include <poll.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace ostravel::standin {

// A connected or connecting stream socket, with operations that call back on a worker. At most one
// read and one write at a time. Held by std::shared_ptr, also by operations in flight; the
// descriptor is closed with the last of them. Usable from any thread.
class StreamSocket : public std::enable_shared_from_this<StreamSocket> {
 public:
  // error is an errno value, 0 for none. Fewer bytes than the minimum without an error: the end.
  using ReadCompletion = std::function<void(std::vector<std::byte> bytes, int error)>;
  using Completion = std::function<void(int error)>;

  // Takes the descriptor over.
  explicit StreamSocket(int descriptor);
  ~StreamSocket();

  void connect(std::vector<std::byte> address, Completion completion);
  void read(std::size_t minimum, std::size_t maximum, ReadCompletion completion);
  void write(std::vector<std::byte> bytes, Completion completion);

  // Ends our sending direction after what was written.
  void endSending();
  // Ends a read under way, and later ones, with ECANCELED.
  void abandonReading();
  // The same for reads and writes.
  void abandon();
  // Abandons, and ends the stream in order: what was written still arrives.
  void close();
  // Abandons, and ends the stream with a reset.
  void reset();
  // Abandons, and leaves the stream open until the process ends.
  void leaveOpen();

 private:
  // Waits for the socket or for the end; 0 when the socket is ready, else an errno value.
  int waitToRead() const { return waitFor(POLLIN, readingAbandoned_); }
  int waitToWrite() const { return waitFor(POLLOUT, writingAbandoned_); }
  int waitFor(short events, int abandoned) const;

  const int descriptor_;
  // Readable once the direction was abandoned.
  const int readingAbandoned_;
  const int writingAbandoned_;
  std::atomic<bool> isEnded_ = false;
};

// Two ends of a new TCP stream over loopback.
struct StreamPair {
  int provider;
  int application;
};
StreamPair makeStreamPair();

}  // namespace ostravel::standin
