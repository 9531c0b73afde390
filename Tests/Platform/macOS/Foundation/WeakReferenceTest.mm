#import "Platform/macOS/Foundation/WeakReference.h"

#import <NetworkExtension/NetworkExtension.h>
#include <gtest/gtest.h>

#include <thread>

namespace ostravel::macos::test {
namespace {

using Provider = NETransparentProxyProvider*;

Reference<Provider> makeObject() {
  @autoreleasepool {
    return Reference<Provider>::adopting([[NETransparentProxyProvider alloc] init]);
  }
}

TEST(WeakReferenceTest, ReturnsTheObjectWhileItExists) {
  const auto object = makeObject();
  const WeakReference<Provider> weak(object.get());
  EXPECT_EQ(weak.lock().get(), object.get());
}

TEST(WeakReferenceTest, IsNilOnceTheObjectIsDestroyed) {
  auto object = makeObject();
  const WeakReference<Provider> weak(object.get());
  object = {};
  EXPECT_EQ(weak.lock().get(), nil);
}

TEST(WeakReferenceTest, KeepsTheObjectItReturned) {
  auto object = makeObject();
  const WeakReference<Provider> weak(object.get());
  auto held = weak.lock();
  object = {};
  EXPECT_EQ(weak.lock().get(), held.get());
  held = {};
  EXPECT_EQ(weak.lock().get(), nil);
}

TEST(WeakReferenceTest, MayReferToNil) {
  const WeakReference<Provider> weak(nil);
  EXPECT_EQ(weak.lock().get(), nil);
}

TEST(WeakReferenceTest, MayBeLockedWhileTheObjectIsDestroyed) {
  for (int i = 0; i < 200; ++i) {
    auto object = makeObject();
    const WeakReference<Provider> weak(object.get());
    std::thread reader([&weak] {
      while (weak.lock().get() != nil) {
      }
    });
    object = {};
    reader.join();
  }
}

}  // namespace
}  // namespace ostravel::macos::test
