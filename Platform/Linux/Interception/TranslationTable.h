#pragma once

#include <memory>

#include "Platform/Interface/Result.h"

struct mnl_socket;

namespace ostravel::linuxplatform {

// Lets the tunnels of a killed extension be reset. While a process ends, the kernel closes its
// files one after the other: if the interception table disappears before a tunnel's socket, and no
// other rules need connection tracking, the reset is no longer translated and the application never
// receives it. This table makes the kernel track and translate connections without affecting any
// packet. Its netlink socket is shared with the guardian, which closes it when the extension has
// closed everything.
//
//   table inet ostravel-translation
//     chain idle     nat output: accepts
class TranslationTable {
 public:
  static constexpr const char* kName = "ostravel-translation";

  // socket: to netfilter, opened before the guardian was started. On failure nothing stays
  // installed.
  static platform::Result<std::unique_ptr<TranslationTable>> install(
      std::shared_ptr<mnl_socket> socket);

  TranslationTable(const TranslationTable&) = delete;
  TranslationTable& operator=(const TranslationTable&) = delete;
  // Removes the table, unlike the end of the process.
  ~TranslationTable();

 private:
  explicit TranslationTable(std::shared_ptr<mnl_socket> socket);

  void remove();

  const std::shared_ptr<mnl_socket> socket_;
};

}  // namespace ostravel::linuxplatform
