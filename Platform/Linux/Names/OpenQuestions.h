#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_map>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Names/BootClock.h"
#include "Platform/Linux/Names/DNSMessage.h"

namespace ostravel::linuxplatform {

// The queries that have left this machine and have not been answered. Only their answers are used.
// A user with many queries does not displace those of others. Used by one thread at a time.
class OpenQuestions {
 public:
  using Clock = BootClock;

  // Resolvers repeat an unanswered query within this time.
  static constexpr std::chrono::seconds kLifetime{10};
  static constexpr std::size_t kPerUser = 1024;
  static constexpr std::size_t kInAll = 8192;

  // The application that asked.
  struct Asker {
    // Empty if unknown.
    std::string application;
    // True if a resolver asks on behalf of the whole machine.
    bool isForMachine = false;
  };

  struct Asked {
    DNSQuestion question;
    uid_t user = 0;
    // From the asking socket to the server.
    FlowTuple tuple;
    // The interface through which the query left; 0 if unknown.
    std::uint32_t outputInterface = 0;
    // Counts from 1.
    std::uint64_t number = 0;
    // Empty until it has been found.
    std::optional<Asker> asker;
  };

  // Returns the question's number; 0 if there is no room for it or if it repeats an open one.
  // asked: without number and asker.
  std::uint64_t add(Asked asked, Clock::time_point now);

  // The open question that an answer with this number and from this server refers to, without
  // closing it. answer: the answer's tuple, from the server to the socket.
  const Asked* find(std::uint16_t id, const FlowTuple& answer, Clock::time_point now);
  void close(std::uint64_t number);

  // Null if the question has been closed or has expired.
  Asked* find(std::uint64_t number);

  std::size_t size() const { return byNumber_.size(); }

 private:
  using Key = std::tuple<FlowTuple, std::uint16_t>;
  struct Open {
    Asked asked;
    Clock::time_point expiry;
  };

  void removeExpired(Clock::time_point now);

  std::uint64_t last_ = 0;
  // In the order of their numbers, which is the order in which they expire.
  std::map<std::uint64_t, Open> byNumber_;
  std::map<Key, std::uint64_t> byKey_;
  std::unordered_map<uid_t, std::size_t> counts_;
};

}  // namespace ostravel::linuxplatform
