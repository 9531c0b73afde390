#pragma once

#include <memory>
#include <string>

#include "Platform/Interface/Result.h"
#include "Platform/Linux/Kernel/PacketMarks.h"

struct mnl_socket;

namespace ostravel::linuxplatform {

// What established tunnels need from the kernel until they are closed, even if the extension is
// killed. While a process ends, the kernel closes its files one after the other: if the
// interception table disappears before a tunnel's socket, the tunnel's reset must still reach the
// application. So these rules have a separate netlink socket, shared with the guardian, which
// closes it when the extension has closed everything.
//
//   table inet ostravel-translation
//     chain idle     nat output: accepts; makes the kernel track and translate connections if no
//                    other rules do
//     chains hide    prerouting, before and after the rules of other programs at the priority raw:
//       and show     these see answers to diverted connections with another destination address;
//                    only if hidesAnswers(), because every packet on loopback pays for it
//
// An answer to a diverted connection comes from this machine with a distant source address. Rules
// against forged answers to the address of a VPN's tunnel, such as those of wg-quick(8), would drop
// it. They are at the priority raw, before connections are tracked, so the address can be changed
// while the packet passes them. Through loopback comes only what this machine has sent itself.
class TranslationTable {
 public:
  static constexpr const char* kName = "ostravel-translation";

  // socket: to netfilter, opened before the guardian was started, which shares it; null if there is
  // no guardian. hidesAnswers: true if other programs have rules at the priority raw. On failure
  // nothing stays installed.
  static platform::Result<std::unique_ptr<TranslationTable>> install(
      std::shared_ptr<mnl_socket> socket, const PacketMarks& marks, bool hidesAnswers);

  // The table with all of its chains as a script for nft(8), one command a line.
  static std::string script(const PacketMarks& marks);

  TranslationTable(const TranslationTable&) = delete;
  TranslationTable& operator=(const TranslationTable&) = delete;
  // Removes the table, unlike the end of the process.
  ~TranslationTable();

  bool hidesAnswers() const { return hidesAnswers_; }
  // Called if it does not.
  platform::OptionalError hideAnswers();

 private:
  TranslationTable(std::shared_ptr<mnl_socket> socket, const PacketMarks& marks, bool hidesAnswers);

  void remove();

  const std::shared_ptr<mnl_socket> socket_;
  const PacketMarks marks_;
  bool hidesAnswers_;
};

}  // namespace ostravel::linuxplatform
