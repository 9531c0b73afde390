#pragma once

namespace ostravel::standin {

// What happens to a connection to a port without a listener.
enum class RefusedConnection { disconnects, waits };

// What happens to a flow that the provider has taken and then releases without closing it. Flows
// that were not taken always continue without the provider.
enum class ReleasedFlow {
  // The application's stream is reset.
  resets,
  // Nothing ends it: the application hangs.
  stays,
  // The system continues with it. Apple's engineers say that it cannot.
  isHandedBack,
};

// How the system behaves where Apple's documentation says nothing, or where its versions differ.
// The values here are the usual ones.
struct SystemBehaviour {
  // The completion of network settings runs inside the call that applies them.
  bool answersSettingsInsideTheCall = false;
  // Applying settings a second time ends the process, as has been reported of macOS 26.
  bool crashesOnRepeatedSettings = false;
  RefusedConnection refusedConnection = RefusedConnection::disconnects;
  // Every connection of the provider is refused.
  bool refusesConnections = false;
  // Cancelling a connection changes its state, and notifies its observers, inside the call.
  bool notifiesInsideCancel = false;
  // Releasing the last reference to a connection ends its stream. Otherwise only cancelling does.
  bool closesReleasedConnections = true;
  ReleasedFlow releasedFlow = ReleasedFlow::resets;
};

// Of the whole process; from any thread.
SystemBehaviour systemBehaviour();

// Sets the behaviour for as long as it lives.
class BehaviourScope {
 public:
  explicit BehaviourScope(const SystemBehaviour& behaviour);
  BehaviourScope(const BehaviourScope&) = delete;
  BehaviourScope& operator=(const BehaviourScope&) = delete;
  ~BehaviourScope();
};

}  // namespace ostravel::standin
