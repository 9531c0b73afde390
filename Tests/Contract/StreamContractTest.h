#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "Platform/Interface/Completion.h"
#include "Tests/Contract/ContractPeer.h"
#include "Tests/Contract/ContractTest.h"
#include "Tests/Support/Outcome.h"

namespace ostravel::contract {

using testing::CallInProgress;
using testing::Outcome;

// Larger than what a socket buffers.
inline constexpr std::size_t kLarge = 8 * 1024 * 1024;

// What the tests of flows and those of connections share: both are streams with a peer at the other
// end. Each operation returns when it has completed.
class StreamContractTest : public ContractTest {
 protected:
  // Both start an operation of the stream under test.
  virtual void startReading(platform::ReadCompletion completion) = 0;
  virtual void startWriting(platform::Data data, platform::ErrorCompletion completion) = 0;

  Outcome read();
  // Reads until this many bytes have arrived, or the end or an error.
  std::string readAll(std::size_t size);
  platform::OptionalError write(const std::string& text);
  // Writes this many bytes in pieces, none of which may fail; returns them.
  std::string writeAcknowledged(std::size_t size);

  // Starts both; the write has more bytes than fit while the peer does not receive.
  void startBoth(Outcome& reading, Outcome& writing);
  // A second operation while the first one is outstanding.
  void expectSecondReadToBeRefused();
  void expectSecondWriteToBeRefused();
  // Both have failed, once, and not inside the call that ended them.
  void expectBothToHaveFailed(const Outcome& reading, const Outcome& writing);

  static bool sawSomeEnd(const ContractPeer& peer) { return peer.sawEnd() || peer.sawReset(); }
};

}  // namespace ostravel::contract
