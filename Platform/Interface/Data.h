#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace ostravel::platform {

// One chunk of bytes. Moved from a read to a write and never copied on the way, so a platform may
// keep it wherever it was read to, a pooled buffer or a pipe in the kernel, until bytes()
// is called; the relay never calls it.
class Data {
 public:
  // A platform's storage of a chunk, released on destruction.
  class Storage {
   public:
    Storage() = default;
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;
    virtual ~Storage() = default;

    virtual std::size_t size() const noexcept = 0;
    // Contiguous memory of size() bytes, valid until this object is destroyed. The first call may
    // have to fetch the bytes from the kernel; it never waits.
    virtual std::span<const std::byte> bytes() = 0;
  };

  Data() = default;
  explicit Data(std::vector<std::byte> bytes) : owned_(std::move(bytes)) {}
  explicit Data(std::unique_ptr<Storage> storage) : storage_(std::move(storage)) {}

  static Data copyOf(std::span<const std::byte> bytes) {
    return Data(std::vector<std::byte>(bytes.begin(), bytes.end()));
  }
  static Data copyOf(std::string_view text) {
    return copyOf(std::as_bytes(std::span(text.data(), text.size())));
  }

  std::size_t size() const noexcept { return storage_ ? storage_->size() : owned_.size(); }
  bool empty() const noexcept { return size() == 0; }
  std::span<const std::byte> bytes() const {
    return storage_ ? storage_->bytes() : std::span<const std::byte>(owned_);
  }

  // For the platform that made the chunk and has a faster way than bytes(); null for plain memory.
  Storage* storage() const noexcept { return storage_.get(); }

 private:
  std::vector<std::byte> owned_;
  std::unique_ptr<Storage> storage_;
};

}  // namespace ostravel::platform
