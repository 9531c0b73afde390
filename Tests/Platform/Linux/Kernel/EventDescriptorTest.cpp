#include "Platform/Linux/Kernel/EventDescriptor.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <thread>

namespace ostravel::linuxplatform {
namespace {

bool isReadable(const EventDescriptor& event) {
  pollfd waited{event.descriptor(), POLLIN, 0};
  return ::poll(&waited, 1, 0) == 1;
}

TEST(EventDescriptorTest, IsReadableFromASignalUntilItIsConsumed) {
  EventDescriptor event;
  EXPECT_FALSE(isReadable(event));
  EXPECT_FALSE(event.consume());
  event.signal();
  EXPECT_TRUE(isReadable(event));
  EXPECT_TRUE(event.consume());
  EXPECT_FALSE(isReadable(event));
}

TEST(EventDescriptorTest, ConsumesAllSignalsAtOnce) {
  EventDescriptor event;
  event.signal();
  event.signal();
  EXPECT_TRUE(event.consume());
  EXPECT_FALSE(event.consume());
}

TEST(EventDescriptorTest, WakesAnotherThread) {
  EventDescriptor event;
  std::thread signaller([&event] { event.signal(); });
  pollfd waited{event.descriptor(), POLLIN, 0};
  EXPECT_EQ(::poll(&waited, 1, -1), 1);
  signaller.join();
}

}  // namespace
}  // namespace ostravel::linuxplatform
