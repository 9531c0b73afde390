#pragma once

#include <nats/nats.h>

#include <memory>

namespace ostravel::companion {

// Owns an object of the library libnats, or none.
template <typename Object, auto kDestroy>
struct NATSRelease {
  void operator()(Object* object) const { kDestroy(object); }
};
template <typename Object, auto kDestroy>
using NATSHandle = std::unique_ptr<Object, NATSRelease<Object, kDestroy>>;

using NATSOptions = NATSHandle<natsOptions, natsOptions_Destroy>;
using NATSConnection = NATSHandle<natsConnection, natsConnection_Destroy>;
// Destroy it after its connection: libnats 3.4.1 uses subscriptions without holding on to them
// while it handles a message that has just arrived.
using NATSSubscription = NATSHandle<natsSubscription, natsSubscription_Destroy>;
using NATSMessage = NATSHandle<natsMsg, natsMsg_Destroy>;
using NATSInbox = NATSHandle<natsInbox, natsInbox_Destroy>;
using NATSStatistics = NATSHandle<natsStatistics, natsStatistics_Destroy>;
using JetStream = NATSHandle<jsCtx, jsCtx_Destroy>;
using JetStreamInfo = NATSHandle<jsStreamInfo, jsStreamInfo_Destroy>;
using JetStreamMetaData = NATSHandle<jsMsgMetaData, jsMsgMetaData_Destroy>;

}  // namespace ostravel::companion
