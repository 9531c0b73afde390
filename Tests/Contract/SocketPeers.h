#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Tests/Contract/SocketPeer.h"

namespace ostravel::contract {

// The rest of the world for a platform with real sockets, on the loopback interface and with one
// thread: listeners that accept, that refuse and that are silent, for TCP and for local sockets,
// and the peers at the other ends. Usable from any thread.
class SocketPeers {
 public:
  using Address = std::vector<std::byte>;

  SocketPeers();
  SocketPeers(const SocketPeers&) = delete;
  SocketPeers& operator=(const SocketPeers&) = delete;
  ~SocketPeers();

  // TCP addresses, on 127.0.0.1.
  Address listeningAddress() const { return addressOf(listener_); }
  Address refusingAddress() const { return addressOf(refusing_); }
  // Its queue of connections is full, so that further ones are not answered.
  Address silentAddress() const { return addressOf(silent_); }
  // Local ones, with names of the kernel's choice that are no files (unix(7), autobind).
  Address listeningLocalAddress() const { return addressOf(localListener_); }
  Address refusingLocalAddress() const { return addressOf(localRefusing_); }

  static std::uint16_t portOf(const Address& address);

  // The oldest accepted TCP connection that was not taken yet; null when there is none.
  std::shared_ptr<SocketPeer> takeAccepted();
  // A peer that is bound to a port of the kernel's choice on 127.0.0.1 and connects later; the
  // number is its port.
  std::pair<std::shared_ptr<SocketPeer>, std::uint16_t> makeUnconnected();
  // What each local connection delivered, for those that have ended.
  std::vector<std::string> localDeliveries() const;

 private:
  static Address addressOf(int descriptor);
  void fillSilentListener();
  std::shared_ptr<SocketPeer> makePeer(int descriptor, SocketPeer::Stage stage);
  void wakeUp();
  void run();
  void accept();
  void acceptLocal();
  void receiveLocal(std::size_t index);

  int listener_ = -1;
  int refusing_ = -1;
  int silent_ = -1;
  int silentFiller_ = -1;
  int localListener_ = -1;
  int localRefusing_ = -1;
  int wakeUp_ = -1;

  mutable std::mutex lock_;
  bool isEnding_ = false;
  std::vector<std::shared_ptr<SocketPeer>> peers_;
  std::deque<std::shared_ptr<SocketPeer>> accepted_;
  std::vector<std::string> localDeliveries_;
  // Used by the thread only.
  std::vector<std::pair<int, std::string>> localConnections_;

  std::thread thread_;
};

}  // namespace ostravel::contract
