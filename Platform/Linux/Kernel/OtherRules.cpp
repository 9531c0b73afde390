#include "Platform/Linux/Kernel/OtherRules.h"

#include <arpa/inet.h>  // must precede <linux/in.h> (linux/libc-compat.h)
#include <libmnl/libmnl.h>
#include <libnftnl/common.h>
#include <libnftnl/rule.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter_ipv4.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/Allocated.h"
#include "Platform/Linux/Kernel/NetlinkMessage.h"

namespace ostravel::linuxplatform {

namespace {

using Rule = std::unique_ptr<nftnl_rule, decltype(&::nftnl_rule_free)>;

constexpr std::size_t kBufferSize = std::size_t{32} * 1024;
// Other programs may change the rules while they are listed; the list is then incomplete.
constexpr int kAttempts = 3;

// All of our tables have this name, or one that begins with it and a hyphen.
constexpr std::string_view kOurTables = "ostravel";

bool isOurs(std::string_view table) {
  return table == kOurTables || (table.starts_with(kOurTables) && table[kOurTables.size()] == '-');
}

constexpr OtherRules::Findings kWorst{.onOutput = true, .atRaw = true};

// The names of the loaded legacy tables. Whether they have rules is not known.
OtherRules::Findings findLegacyTables() {
  OtherRules::Findings findings;
  // Under /proc/self: a sandboxed service may see nothing else of /proc.
  for (const char* const path :
       {"/proc/self/net/ip_tables_names", "/proc/self/net/ip6_tables_names"}) {
    std::ifstream names(path);
    if (!names.is_open() && errno != ENOENT) {
      return kWorst;
    }
    for (std::string name; std::getline(names, name);) {
      // Every one has a chain for outgoing packets.
      findings.onOutput = true;
      findings.atRaw |= name == "raw";
    }
    if (names.bad()) {
      return kWorst;
    }
  }
  return findings;
}

// A chain that sees packets which matter to us.
struct RelevantChain {
  std::string table;
  std::string name;
  std::uint8_t family;
  bool isOnOutput;
  bool dropsByDefault;
};

bool isNearRaw(std::int32_t priority) {
  return NF_IP_PRI_RAW - OtherRules::kRawMargin < priority &&
         priority < NF_IP_PRI_RAW + OtherRules::kRawMargin;
}

bool isOfIP(std::uint32_t family) {
  return family == NFPROTO_INET || family == NFPROTO_IPV4 || family == NFPROTO_IPV6;
}

// libnftnl(3) would end the process if the kernel described a chain in an unexpected way.
// relevant: std::vector<RelevantChain>
int noteChain(const nlmsghdr* header, void* relevant) {
  const auto attribute = [header](std::uint16_t type) {
    return attributeOf(*header, sizeof(nfgenmsg), type);
  };
  const auto* const message = fixedPart<nfgenmsg>(*header);
  auto table = textOf(attribute(NFTA_CHAIN_TABLE));
  auto name = textOf(attribute(NFTA_CHAIN_NAME));
  if (message == nullptr || !table || !name) {
    return MNL_CB_ERROR;
  }
  const nlattr* const hook = attribute(NFTA_CHAIN_HOOK);
  // Packets reach a chain without a hook only through rules of others.
  if (hook == nullptr || !isOfIP(message->nfgen_family) || isOurs(*table)) {
    return MNL_CB_OK;
  }
  const auto place = networkNumberOf(attributeIn(hook, NFTA_HOOK_HOOKNUM));
  const auto priority = networkNumberOf(attributeIn(hook, NFTA_HOOK_PRIORITY));
  if (!place || !priority) {
    return MNL_CB_ERROR;
  }
  const bool isOnOutput = place == NF_INET_LOCAL_OUT;
  if (isOnOutput ||
      (place == NF_INET_PRE_ROUTING && isNearRaw(static_cast<std::int32_t>(*priority)))) {
    static_cast<std::vector<RelevantChain>*>(relevant)->push_back(
        {*std::move(table), *std::move(name), message->nfgen_family, isOnOutput,
         networkNumberOf(attribute(NFTA_CHAIN_POLICY)) == NF_DROP});
  }
  return MNL_CB_OK;
}

// isThere: bool
int noteRule(const nlmsghdr* /*header*/, void* isThere) {
  *static_cast<bool*>(isThere) = true;
  return MNL_CB_OK;
}

// number: std::optional<std::uint32_t>
int noteGeneration(const nlmsghdr* header, void* number) {
  *static_cast<std::optional<std::uint32_t>*>(number) =
      networkNumberOf(attributeOf(*header, sizeof(nfgenmsg), NFTA_GEN_ID));
  return MNL_CB_STOP;
}

// One request, and its answers.
class Request {
 public:
  Request(std::uint16_t type, std::uint16_t family, std::uint16_t flags, std::uint32_t sequence)
      : buffer_(kBufferSize),
        header_(::nftnl_nlmsg_build_hdr(buffer_.data(), type, family, flags, sequence)) {}

  nlmsghdr* header() { return header_; }

  // Calls note with every answer and data. False if the answers are not complete.
  bool run(mnl_socket* socket, mnl_cb_t note, void* data) {
    const std::uint32_t sequence = header_->nlmsg_seq;
    if (::mnl_socket_sendto(socket, header_, header_->nlmsg_len) < 0) {
      return false;
    }
    while (true) {
      const auto size = ::mnl_socket_recvfrom(socket, buffer_.data(), buffer_.size());
      const int result = size <= 0
                             ? MNL_CB_ERROR
                             : ::mnl_cb_run(buffer_.data(), completeSize(buffer_.data(), size),
                                            sequence, ::mnl_socket_get_portid(socket), note, data);
      if (result <= MNL_CB_STOP) {
        return result == MNL_CB_STOP;
      }
    }
  }

 private:
  std::vector<char> buffer_;
  nlmsghdr* const header_;
};

// Empty if the kernel does not say.
std::optional<bool> hasRules(mnl_socket* socket, const RelevantChain& chain,
                             std::uint32_t sequence) {
  if (chain.dropsByDefault) {
    return true;
  }
  const Rule rule(allocated(::nftnl_rule_alloc()), &::nftnl_rule_free);
  requireCopied(::nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, chain.table.c_str()));
  requireCopied(::nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, chain.name.c_str()));
  Request request(NFT_MSG_GETRULE, chain.family, NLM_F_DUMP, sequence);
  ::nftnl_rule_nlmsg_build_payload(request.header(), rule.get());
  bool isThere = false;
  if (!request.run(socket, noteRule, &isThere)) {
    return std::nullopt;
  }
  return isThere;
}

NetlinkSocket openSocket() {
  auto opened = openNetfilterSocket();
  return opened ? *std::move(opened) : nullptr;
}

}  // namespace

OtherRules::OtherRules() : socket_(openSocket()) {}

OtherRules::Findings OtherRules::find() {
  for (int attempt = 0; socket_ && attempt < kAttempts; ++attempt) {
    if (const auto findings = findOnce()) {
      return *findings;
    }
  }
  return kWorst;
}

std::optional<OtherRules::Findings> OtherRules::findOnce() {
  Findings findings = findLegacyTables();
  std::vector<RelevantChain> relevant;
  Request request(NFT_MSG_GETCHAIN, NFPROTO_UNSPEC, NLM_F_DUMP, ++sequence_);
  if (!request.run(socket_.get(), noteChain, &relevant)) {
    return std::nullopt;
  }
  for (const RelevantChain& chain : relevant) {
    const auto isThere = hasRules(socket_.get(), chain, ++sequence_);
    if (!isThere) {
      return std::nullopt;
    }
    (chain.isOnOutput ? findings.onOutput : findings.atRaw) |= *isThere;
  }
  return findings;
}

bool OtherRules::mayHaveChanged() {
  const auto legacy = findLegacyTables();
  const auto all = generation();
  // Our own changes are counted when they are complete: while one is being made, the difference may
  // be wrong, but then it differs from the next one.
  const auto others = all ? std::optional(*all - NetfilterBatch::commitCount()) : std::nullopt;
  const bool result = !others || others != otherChanges_ || legacy.onOutput || legacy.atRaw;
  otherChanges_ = others;
  return result;
}

std::optional<std::uint32_t> OtherRules::generation() {
  std::optional<std::uint32_t> result;
  if (socket_) {
    Request request(NFT_MSG_GETGEN, NFPROTO_UNSPEC, 0, ++sequence_);
    request.run(socket_.get(), noteGeneration, &result);
  }
  return result;
}

}  // namespace ostravel::linuxplatform
