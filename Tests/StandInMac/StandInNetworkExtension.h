#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

// The tests' interface to the stand-in for the NetworkExtension framework, besides the framework's
// own: it plays the system and the application. All from any thread. Objects are returned
// autoreleased unless noted otherwise.
namespace ostravel::standin {

// --- Flows.

// The source and the destination that a flow reports.
struct FlowDescription {
  // nil: the metadata has no identifier.
  NSString* signingIdentifier = @"com.example.application";
  bool hasMetaData = true;
  // Of a TCP flow the remote endpoint, of a UDP flow the local one.
  NWEndpoint* endpoint = nil;
};

// The descriptor is the provider's end of the application's stream; it is taken over.
NEAppProxyTCPFlow* makeTCPFlow(const FlowDescription& description, int descriptor);
NEAppProxyUDPFlow* makeUDPFlow(const FlowDescription& description);
// A flow of an unknown class.
NEAppProxyFlow* makeUnknownFlow(const FlowDescription& description);

// What has been done to a flow; lives longer than the flow.
class FlowRecord {
 public:
  virtual ~FlowRecord() = default;
  virtual bool isOpened() const = 0;
  virtual bool isReadClosed() const = 0;
  virtual bool isWriteClosed() const = 0;
  // Autoreleased; nil for none.
  virtual NSError* closeReadError() const = 0;
  virtual NSError* closeWriteError() const = 0;
  // The provider has answered the offer with yes.
  virtual void noteTaken() = 0;
  // Released unclosed before it was taken, or before it carried anything where a taken flow can be
  // handed back: the system continues with it. The function is called at that moment.
  virtual bool wasLeftToSystem() const = 0;
  virtual void onLeftToSystem(std::function<void()> function) = 0;
  // The local endpoint that open was given; nil for none.
  virtual NWEndpoint* openedLocalEndpoint() const = 0;

  // Open fails with this error from now on.
  virtual void failOpening(NSError* error) = 0;
  // Completions of open wait until they are released.
  virtual void holdOpening() = 0;
  virtual void letOpeningGo() = 0;
  // The next read delivers exactly this.
  virtual void setNextRead(NSData* data, NSError* error) = 0;
};
std::shared_ptr<FlowRecord> recordOf(NEAppProxyFlow* flow);

// --- Endpoints.

// An endpoint of another kind than a host and a port.
NWEndpoint* makeOtherEndpoint();
// A host endpoint whose parts may be nil.
NWHostEndpoint* makeHostEndpoint(NSString* hostname, NSString* port);

// --- Connections, those that providers make from now on.

// createTCPConnectionToEndpoint: gives nil.
void setConnectionCreationFailure(bool fails);
// A connection that is not connected to anything; the states are set by hand.
NWTCPConnection* makeScriptedConnection();
void setState(NWTCPConnection* connection, NWTCPConnectionState state, NSError* error);
// The next read delivers exactly this.
void setNextRead(NWTCPConnection* connection, NSData* data, NSError* error);

// --- Providers.

void setProtocolConfiguration(NETunnelProvider* provider, NEVPNProtocol* configuration);
// Settings that were asked for, with the result that was reported. Of one provider.
struct AppliedSettings {
  std::string tunnelRemoteAddress;
  // Each "address:port/prefix tcp" or "... udp".
  std::vector<std::string> included;
  std::vector<std::string> excluded;
};
std::vector<AppliedSettings> appliedSettings(NETunnelProvider* provider);
// Settings are refused with this error from now on; nil accepts them again.
void failSettings(NETunnelProvider* provider, NSError* error);
// Completions of settings wait until they are released; they do not need the provider any more.
class SettingsHold {
 public:
  virtual ~SettingsHold() = default;
  virtual void letGo() = 0;
};
std::shared_ptr<SettingsHold> holdSettings(NETunnelProvider* provider);
// The function is called inside each call that applies settings.
void onSettings(NETunnelProvider* provider, std::function<void()> function);

// Implements startSystemExtensionMode, in StandInSystem: plays the system for the process entry,
// with the principal class of that name.
void runSystemExtensionMode(const std::string& principalClass);

}  // namespace ostravel::standin
