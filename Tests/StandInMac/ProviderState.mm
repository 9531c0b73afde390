#import "Tests/StandInMac/ProviderState.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#import "Platform/macOS/Foundation/FoundationText.h"
#include "Tests/StandInMac/SystemBehaviour.h"
#include "Tests/StandInMac/WorkerPool.h"

namespace ostravel::standin {

namespace {

// The conditions that the system has for each rule of a transparent proxy.
bool isAcceptable(NENetworkRule* rule) {
  NWHostEndpoint* const endpoint = [rule matchRemoteEndpoint];
  const std::string address = macos::textOf([endpoint hostname]);
  const std::string port = macos::textOf([endpoint port]);
  const bool isAnyAddress = address == "0.0.0.0" || address == "::";
  const bool isAnyPort = port.empty() || port == "0";
  const NSUInteger longestPrefix = address.find(':') != std::string::npos ? 128 : 32;
  return !(isAnyAddress && isAnyPort) && port != "53" &&
         [rule matchRemotePrefix] <= longestPrefix &&
         [rule matchDirection] == NETrafficDirectionOutbound;
}

// Whether all are acceptable; their texts go to the end of texts.
bool readRules(NSArray<NENetworkRule*>* rules, std::vector<std::string>& texts) {
  bool areAcceptable = true;
  for (NENetworkRule* rule in rules) {
    NWHostEndpoint* const endpoint = [rule matchRemoteEndpoint];
    texts.push_back(macos::textOf([endpoint hostname]) + ":" + macos::textOf([endpoint port]) +
                    "/" + std::to_string([rule matchRemotePrefix]) +
                    ([rule matchProtocol] == NENetworkRuleProtocolUDP ? " udp" : " tcp"));
    areAcceptable &= isAcceptable(rule);
  }
  return areAcceptable;
}

}  // namespace

NEVPNProtocol* ProviderState::configuration() const {
  const std::lock_guard guard(lock_);
  return [[configuration_.get() retain] autorelease];
}

void ProviderState::setConfiguration(NEVPNProtocol* configuration) {
  const std::lock_guard guard(lock_);
  configuration_ = macos::Reference<NEVPNProtocol*>::retaining(configuration);
}

void ProviderState::apply(NETunnelNetworkSettings* settings, ErrorBlock completion) {
  AppliedSettings applied;
  bool areAcceptable = false;
  if ([settings isKindOfClass:[NETransparentProxyNetworkSettings class]]) {
    auto* const proxySettings = static_cast<NETransparentProxyNetworkSettings*>(settings);
    applied.tunnelRemoteAddress = macos::textOf([settings tunnelRemoteAddress]);
    areAcceptable = readRules([proxySettings includedNetworkRules], applied.included);
    areAcceptable &= readRules([proxySettings excludedNetworkRules], applied.excluded);
  }
  std::unique_lock guard(lock_);
  if (!applied_.empty() && systemBehaviour().crashesOnRepeatedSettings) {
    std::fputs("BUG IN CLIENT OF DISPATCH: Over-resume of an object\n", stderr);
    std::abort();
  }
  applied_.push_back(std::move(applied));
  const auto onSettings = onSettings_;
  Answer answer{std::move(completion), failure_};
  if (!areAcceptable) {
    answer.error = macos::Reference<NSError*>::retaining([NSError
        errorWithDomain:NETunnelProviderErrorDomain
                   code:NETunnelProviderErrorNetworkSettingsInvalid
               userInfo:nil]);
  }
  if (isHeld_) {
    held_.push_back(std::move(answer));
    answer = {};
  }
  guard.unlock();
  if (onSettings) {
    onSettings();
  }
  if (answer.completion.get() == nil) {
    return;
  }
  if (systemBehaviour().answersSettingsInsideTheCall) {
    answer.completion.get()(answer.error.get());
  } else {
    answerLater(answer);
  }
}

void ProviderState::onSettings(std::function<void()> function) {
  const std::lock_guard guard(lock_);
  onSettings_ = std::move(function);
}

void ProviderState::answerLater(const Answer& answer) {
  runOnWorker([answer] { answer.completion.get()(answer.error.get()); });
}

std::vector<AppliedSettings> ProviderState::applied() const {
  const std::lock_guard guard(lock_);
  return applied_;
}

void ProviderState::fail(NSError* error) {
  const std::lock_guard guard(lock_);
  failure_ = macos::Reference<NSError*>::retaining(error);
}

void ProviderState::hold() {
  const std::lock_guard guard(lock_);
  isHeld_ = true;
}

void ProviderState::letGo() {
  // Destroyed without the lock: a completion may hold the provider.
  std::vector<Answer> answers;
  const std::lock_guard guard(lock_);
  isHeld_ = false;
  answers.swap(held_);
  for (const Answer& answer : answers) {
    answerLater(answer);
  }
}

}  // namespace ostravel::standin
