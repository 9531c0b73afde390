#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "Platform/Interface/Log.h"
#include "Platform/Interface/NetworkSettings.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Interception/TranslationTable.h"
#include "Platform/Linux/Kernel/OtherRules.h"
#include "Platform/Linux/Kernel/PacketMarks.h"

namespace ostravel::linuxplatform {

// Installs the interception rules in the cheapest form that respects those of other programs, and
// adjusts them when other programs add rules. Once a more expensive form was necessary, it is kept:
// packets that were queued in one form must not get their verdict in a cheaper one.
class RuleInstaller {
 public:
  struct Plan {
    platform::TransparentProxyNetworkSettings settings;
    PacketMarks marks;
    std::uint16_t queueNumber = 0;
    std::vector<InterceptionTable::ListenerPorts> listeners;
    // True if a copy of a packet can be sent: needed to offer packets after the filters.
    bool canResend = false;
    // Shared with the guardian, see TranslationTable; null if there is no guardian.
    std::shared_ptr<mnl_socket> guardedSocket;
  };

  RuleInstaller(Plan plan, std::shared_ptr<platform::Log> log);

  // Also installs the table for translations; its failure is only logged. On failure nothing stays
  // installed.
  platform::Result<std::unique_ptr<InterceptionTable>> install();

  // Called now and then, by the thread that may install. After an error the table must be replaced.
  platform::OptionalError adjust(InterceptionTable& table);

  // True if a packet that was received before this call may have been offered after the filters, so
  // that a copy must be sent in order to redirect it. From any thread.
  bool mustResend() const { return isLate_; }

 private:
  platform::OptionalError adjustOffer(InterceptionTable& table);
  void adjustTranslation(TranslationTable& table);

  const Plan plan_;
  const std::shared_ptr<platform::Log> log_;
  OtherRules otherRules_;
  std::atomic<bool> isLate_ = false;
};

}  // namespace ostravel::linuxplatform
