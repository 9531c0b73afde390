#pragma once

#include <optional>
#include <string>
#include <utility>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Tests/Extension/Support/ScriptedTransfers.h"

namespace ostravel::test {

// An open flow whose completions the test controls. Its calls are "read", "write 12", "closeRead"
// and "closeWrite".
class ScriptedFlow final : public platform::AppProxyTCPFlow, public ScriptedTransfers {
 public:
  ScriptedFlow() = default;
  explicit ScriptedFlow(std::string appId, platform::HostEndpoint remote,
                        platform::FlowObserver* observer)
      : appId_(std::move(appId)), remote_(std::move(remote)), observer_(observer) {}

  std::string sourceAppSigningIdentifier() const override { return appId_; }
  std::optional<platform::HostEndpoint> remoteEndpoint() const override { return remote_; }
  platform::FlowObserver* observer() override { return observer_; }
  // Opening it completes with this error.
  void failOpen(platform::Error error) { openError_ = std::move(error); }
  void open(std::optional<platform::HostEndpoint> /*localEndpoint*/,
            platform::ErrorCompletion completion) override {
    completion(openError_);
  }
  void read(platform::ReadCompletion completion) override {
    startRead("read", std::move(completion));
  }
  void write(platform::Data data, platform::ErrorCompletion completion) override {
    startWrite(data, std::move(completion));
  }
  void closeRead(platform::OptionalError /*error*/) override { note("closeRead"); }
  void closeWrite(platform::OptionalError /*error*/) override { note("closeWrite"); }

 private:
  const std::string appId_ = "com.example.app";
  const platform::HostEndpoint remote_{"192.0.2.10", "443"};
  platform::FlowObserver* const observer_ = nullptr;
  platform::OptionalError openError_;
};

}  // namespace ostravel::test
