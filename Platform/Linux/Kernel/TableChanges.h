#pragma once

#include <cstdint>
#include <string>

#include "Platform/Linux/Kernel/NetfilterBatch.h"
#include "Platform/Linux/Kernel/NetfilterRule.h"

namespace ostravel::linuxplatform {

// The changes that make or change an inet table of nf_tables, for the kernel and as a script for
// nft(8).
// The table is owned by the netlink socket on which the batch is committed: it disappears with that
// socket, and no other process can change it.
class TableChanges {
 public:
  enum class Hook { prerouting, input, output };
  // Where the packets of a chain come from.
  struct Base {
    // "filter" or "nat"
    const char* type;
    Hook hook;
    std::int32_t priority;
  };

  // A set whose elements expire.
  struct ExpiringSet {
    const char* name;
    // Distinguishes the sets of one table.
    std::uint32_t id;
    // The type of the elements: its number in the kernel, its name in nft(8), and its size in
    // bytes.
    std::uint32_t type;
    const char* typeName;
    std::uint32_t elementSize;
    std::uint64_t timeoutMilliseconds;
    // The limit on the elements that rules add; 0 if rules add none.
    std::uint32_t maximumCount = 0;
  };

  // For a new table. name: valid as long as this object.
  explicit TableChanges(const char* name);
  // For a table that the same netlink socket has made.
  static TableChanges ofExisting(const char* name);

  // A chain that a jump leads to.
  void addChain(const char* name) { addChain(name, nullptr); }
  // A chain of a hook, which accepts packets that its rules do not decide.
  void addChain(const char* name, const Base& base) { addChain(name, &base); }
  // Also removes its rules. A chain of the same name may be added afterwards.
  void removeChain(const char* name);
  // change: what a failure of the batch calls it.
  void add(std::string change, const ExpiringSet& set);
  void add(std::string change, const NetfilterRule& rule);

  // Appends one command to the script: what is added, where, and its definition.
  void say(const std::string& what, const std::string& definition = "");

  NetfilterBatch& batch() { return batch_; }
  const std::string& script() const { return script_; }

 private:
  struct Existing {};
  TableChanges(const char* name, Existing) : table_(name) {}

  void addChain(const char* name, const Base* base);

  const char* const table_;
  NetfilterBatch batch_;
  std::string script_;
};

}  // namespace ostravel::linuxplatform
