#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "Platform/Interface/TCPConnection.h"
#include "Platform/Simulation/SimulatedTCPConnection.h"
#include "Tests/Simulator/Strand.h"
#include "Tests/Simulator/World.h"

namespace ostravel::simulator {

// A simulated connection whose operations, completions and notifications are recorded. Owned by the
// tunnel that it was made for.
class ObservedConnection final : public platform::TCPConnection {
 public:
  // onRequest: called when the proxy has received all of the first write.
  ObservedConnection(World& world, std::uint32_t flow, std::shared_ptr<Strand> strand,
                     std::shared_ptr<simulation::SimulatedTCPConnection> connection,
                     std::function<void()> onRequest);
  ~ObservedConnection() override;

  platform::TCPConnectionState state() const override;
  platform::OptionalError error() const override { return connection_->error(); }
  void addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                   std::string_view keyPath) override;
  void removeObserver(platform::KeyValueObserver& observer, std::string_view keyPath) override;
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void cancel() override;

 private:
  class Notification;

  World& world_;
  const std::uint32_t flow_;
  const std::shared_ptr<Strand> strand_;
  const std::shared_ptr<simulation::SimulatedTCPConnection> connection_;
  std::function<void()> onRequest_;
  // The system's observer is registered as long as this is.
  std::shared_ptr<Notification> notification_;
};

}  // namespace ostravel::simulator
