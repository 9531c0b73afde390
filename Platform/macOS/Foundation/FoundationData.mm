#import "Platform/macOS/Foundation/FoundationData.h"

#include <memory>

#import "Platform/macOS/Foundation/Reference.h"

namespace ostravel::macos {

namespace {

// A chunk as the system delivered it.
class FoundationDataStorage final : public platform::Data::Storage {
 public:
  explicit FoundationDataStorage(NSData* data) : data_(Reference<NSData*>::retaining(data)) {}

  NSData* object() const { return data_.get(); }

  std::size_t size() const noexcept override { return [data_.get() length]; }
  std::span<const std::byte> bytes() override {
    return {static_cast<const std::byte*>([data_.get() bytes]), size()};
  }

 private:
  const Reference<NSData*> data_;
};

}  // namespace

std::optional<platform::Data> dataFrom(NSData* data) {
  if (data == nil) {
    return std::nullopt;
  }
  return platform::Data(std::make_unique<FoundationDataStorage>(data));
}

NSData* makeNSData(const platform::Data& data) {
  if (const auto* storage = dynamic_cast<const FoundationDataStorage*>(data.storage())) {
    // The chunk may be destroyed before the caller's pool is drained.
    return [[storage->object() retain] autorelease];
  }
  const auto bytes = data.bytes();
  return [NSData dataWithBytes:bytes.data() length:bytes.size()];
}

}  // namespace ostravel::macos
