#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Interface/Completion.h"
#include "Platform/Interface/Data.h"
#include "Platform/Interface/Error.h"
#include "Platform/Simulation/RunState.h"

namespace ostravel::simulation {

// How the end of a stream reaches a reader; the seam allows both.
enum class EndOfStream { absentData, emptyData };

// The far end of a flow or of a connection, the application or the proxy, controlled by the test.
//
// Owned by its near end, and by a test that examines it after the near end is destroyed. Its
// operations take effect through the run queue: nothing completes before the run continues.
class SimulatedPeer : public std::enable_shared_from_this<SimulatedPeer> {
 public:
  // name: of the near end, for the journal.
  SimulatedPeer(RunState& run, std::string name);
  SimulatedPeer(const SimulatedPeer&) = delete;
  SimulatedPeer& operator=(const SimulatedPeer&) = delete;

  const std::string& name() const { return name_; }

  // --- Operations of the far end.

  // Makes bytes available to be read, after those that are unread.
  void send(std::string_view bytes);
  // The end of the stream, after the bytes that were sent. In the seeded order its form is drawn.
  void endSending(EndOfStream form = EndOfStream::absentData);
  // Every read from now on fails, the outstanding one as well; bytes that are unread are lost.
  void failReads(platform::Error error);
  // Every write from now on fails, the outstanding one as well, even if it is held back.
  void failWrites(platform::Error error);
  // Both directions at once: what a reset does. Ends a connection as a whole.
  void reset();
  void reset(platform::Error error);

  // Write completions are held back until they are released one by one, or all from now on.
  void holdWrites();
  // Releases the outstanding write; throws std::logic_error if there is none.
  void releaseWrite();
  void releaseWrites();

  // --- Observations of the far end.

  // Every byte whose write was acknowledged.
  const std::string& received() const { return received_; }
  // The data of every write, acknowledged or not.
  const std::vector<std::string>& writes() const { return writes_; }
  // The orderly end of what is written to it.
  bool sawEnd() const { return sawEnd_ && !sawReset_; }
  bool sawReset() const { return sawReset_; }
  // Why, if the near end said so.
  const platform::OptionalError& resetReason() const { return resetReason_; }
  // The near end left the flow to the system before it carried anything: it closed with an error
  // before the first operation, or was destroyed unclosed.
  bool wasLeftToSystem() const { return leftToSystem_; }

  // --- Pending operations of the near end.

  bool readOutstanding() const { return read_.has_value(); }
  bool writeOutstanding() const { return write_.has_value(); }
  std::size_t unreadBytes() const { return inbound_.size() - inboundStart_; }

  // At the end of a run: destroys the outstanding completions, which may be the only owners of the
  // near end, without calling them.
  void dropCompletions();

 private:
  friend class SimulatedTCPConnection;
  friend class SimulatedTCPFlow;

  struct Read {
    std::size_t minimum;
    std::size_t maximum;
    platform::ReadCompletion completion;
    bool scheduled = false;
  };
  struct Write {
    std::string bytes;
    platform::ErrorCompletion completion;
    bool released = false;
    bool scheduled = false;
  };

  // Called inside the far end's call for its reset, and after a read has reported the end.
  using ResetHandler = std::function<void(const platform::Error&)>;
  using EndHandler = std::function<void()>;

  // --- Operations of the near end.

  void observe(ResetHandler onReset, EndHandler onEnd);
  // Until then reads and writes wait.
  void establish();
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion);
  void write(const platform::Data& data, platform::ErrorCompletion completion);
  // The outstanding operation fails with the error, if there is one.
  void closeReading(const platform::OptionalError& error);
  void closeWriting(const platform::OptionalError& error);
  // Neither direction was closed yet.
  bool isUntouched() const { return !readingClosed_ && !writingClosed_; }
  // Both directions end with the error for the near end only; the far end is unaffected.
  // call: what the near end did, for the journal.
  void leaveToSystem(std::string_view call, const platform::Error& error);
  // Nothing more is transferred: reads report the error, or the end without one; writes fail.
  void disconnect(const platform::OptionalError& error);
  // Both directions, seen as an orderly end; what is outstanding fails with the error.
  void abandon(const platform::Error& error);
  // A reset, because a stream that was cut off must not look complete.
  void cutOff() { sawReset_ = true; }
  // The near end is destroyed: what is outstanding is cancelled.
  void detach();
  // A flow was destroyed: the effect on the application if it was not closed.
  void detachUnclosed();
  void cancelOutstanding();

  bool readCanComplete() const;
  void scheduleRead();
  void completeRead();
  platform::Data takeChunk();
  void finishRead(std::optional<platform::Data> data, platform::OptionalError error);
  void scheduleWrite();
  void completeWrite();
  // Without a journal the lines are not even composed.
  void note(std::string_view what, const platform::OptionalError& error = std::nullopt);
  void noteBytes(std::string_view what, std::size_t count);

  RunState& run_;
  const std::string name_;
  ResetHandler onReset_;
  EndHandler onEnd_;
  bool established_ = false;
  // Something was read or acknowledged.
  bool carried_ = false;

  // Towards the near end. The bytes before inboundStart_ were read already.
  std::string inbound_;
  std::size_t inboundStart_ = 0;
  std::optional<EndOfStream> inboundEnd_;
  platform::OptionalError readFailure_;
  bool readingClosed_ = false;
  std::optional<Read> read_;

  // Towards the far end.
  bool holdingWrites_ = false;
  platform::OptionalError writeFailure_;
  std::optional<Write> write_;
  bool writingClosed_ = false;
  std::vector<std::string> writes_;
  std::string received_;
  bool sawEnd_ = false;
  bool sawReset_ = false;
  platform::OptionalError resetReason_;
  bool leftToSystem_ = false;
};

}  // namespace ostravel::simulation
