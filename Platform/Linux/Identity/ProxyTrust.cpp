#include "Platform/Linux/Identity/ProxyTrust.h"

#include <algorithm>
#include <utility>

#include "Platform/Linux/Identity/PrintableIdentifier.h"

namespace ostravel::linuxplatform {

ProxyTrust::ProxyTrust(ProxyProcess& proxy, std::uint16_t port, const std::vector<uid_t>& named,
                       Warn warn, ProcessTableSource processes)
    : proxy_(proxy),
      port_(port),
      systemUsers_(SystemUsers::read()),
      named_(named.begin(), named.end()),
      warn_(std::move(warn)),
      trial_(port, std::move(processes)) {}

bool ProxyTrust::holdsFor(std::optional<uid_t> user) {
  if (listener_ != proxy_.listenerCookie()) {
    forget();
    listener_ = proxy_.listenerCookie();
  }
  if (!hasPassed_ && !hasPassedTrial()) {
    return false;
  }
  const bool isTrusted = std::ranges::all_of(
      owners_, [this, user](const auto& owner) { return mayServe(owner.first, user); });
  if (!isTrusted) {
    warnAboutOwners();
  }
  return isTrusted;
}

bool ProxyTrust::mayDial(uid_t user) const {
  return proxy_.mayRunAs(user) || mayServe(user, std::nullopt);
}

void ProxyTrust::forget() {
  isNotProxy_ = false;
  hasPassed_ = false;
  knowsDialler_ = false;
  owners_.clear();
  userName_.clear();
  answer_.clear();
  hasWarnedAboutAnswer_ = false;
  hasWarnedAboutOwners_ = false;
  description_.clear();
  news_.reset();
}

bool ProxyTrust::hasPassedTrial() {
  if (isNotProxy_) {
    return false;
  }
  auto result = trial_.resultOf(proxy_.listener(), proxy_.uid());
  if (!result) {
    return false;
  }
  answer_ = result->outcome.answer;
  const auto name = result->userNames.find(proxy_.uid());
  userName_ = name == result->userNames.end() ? std::to_string(proxy_.uid()) : name->second;
  isNotProxy_ = result->outcome.judgement == ProxyTrial::Judgement::notAProxy;
  hasPassed_ = result->outcome.judgement == ProxyTrial::Judgement::proxy;
  if (hasPassed_) {
    takeParts(std::move(*result));
  } else {
    warnAboutAnswer(*result);
  }
  return hasPassed_;
}

void ProxyTrust::takeParts(ProxyTrialThread::Result result) {
  owners_ = std::move(result.userNames);
  owners_.try_emplace(proxy_.uid(), userName_);
  description_ = ownerText(userName_);
  news_ = "the local proxy is " + description_;
  // Without the dialler, part of the proxy is still unknown.
  knowsDialler_ = result.outcome.dialler.has_value();
  for (auto& part : {result.outcome.acceptor, result.outcome.dialler}) {
    if (part) {
      proxy_.add(*part);
    }
  }
}

bool ProxyTrust::mayServe(uid_t owner, std::optional<uid_t> user) const {
  return owner == user || systemUsers_.includes(owner) || named_.contains(owner);
}

void ProxyTrust::warnAboutAnswer(const ProxyTrialThread::Result& result) {
  if (std::exchange(hasWarnedAboutAnswer_, true)) {
    return;
  }
  warn_(ownerText(userName_) + " listens on port " + std::to_string(port_) +
        " and does not answer CONNECT as a proxy does: " + result.outcome.answer +
        "; every flow is left to the system until a proxy listens there");
}

void ProxyTrust::warnAboutOwners() {
  if (std::exchange(hasWarnedAboutOwners_, true)) {
    return;
  }
  const auto owner = std::ranges::find_if(
      owners_, [this](const auto& each) { return !mayServe(each.first, std::nullopt); });
  const std::string& user = owner->second;
  warn_(ownerText(user) + " listens on port " + std::to_string(port_) +
        " for an ordinary user, and is not used for the flows of others: run the proxy as root or "
        "a system user, or name its user with --proxy-user " +
        user);
}

std::string ProxyTrust::reason() const {
  const std::string user = userName_.empty() ? std::to_string(proxy_.uid()) : userName_;
  const std::string listener = ownerText(user) + " listens on port " + std::to_string(port_);
  if (!hasPassed_) {
    return listener + (answer_.empty()
                           ? std::string(" and is being tested")
                           : " and does not answer CONNECT as a proxy does: " + answer_);
  }
  std::string trust;
  for (const auto& [owner, name] : owners_) {
    if (!mayServe(owner, std::nullopt)) {
      return listener + " for an ordinary user, so only connections of user " + name +
             " are proxied";
    }
    trust += (trust.empty() ? "" : " and ") + trustText(owner, name);
  }
  return "it belongs to " + trust + ", and answered a CONNECT with \"" + answer_ + "\" when tested";
}

std::string ProxyTrust::trustText(uid_t owner, const std::string& name) const {
  if (owner == 0) {
    return "root";
  }
  return systemUsers_.includes(owner) ? "the system user " + name
                                      : "user " + name + ", named with --proxy-user";
}

std::string ProxyTrust::ownerText(const std::string& user) const {
  const Process& owner = proxy_.owner();
  const std::string program =
      owner.executable.empty() ? "a program" : printableIdentifier(owner.executable);
  return program + " (process " + std::to_string(owner.pid) + ", user " + user + ")";
}

}  // namespace ostravel::linuxplatform
