#include "Platform/Linux/Inspection/InspectionMessage.h"

#include <algorithm>
#include <concepts>
#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

namespace ostravel::linuxplatform {

namespace {

// Longer texts are cut off; the kernel has no longer paths (PATH_MAX).
constexpr std::size_t kMaximumText = 4096;
constexpr std::size_t kMaximumList = 64;

template <typename T>
concept Number = std::integral<T> && !std::same_as<T, bool>;

template <typename T>
concept Group = std::is_class_v<T>;

class Writer {
 public:
  template <typename... Values>
  void operator()(const Values&... values) {
    (write(values), ...);
  }
  std::string take() { return std::move(message_); }

 private:
  void write(Number auto number) {
    message_.append(reinterpret_cast<const char*>(&number), sizeof number);
  }
  void write(bool value) { write(static_cast<std::uint8_t>(value)); }
  void write(std::chrono::nanoseconds time) { write(std::int64_t{time.count()}); }
  void write(const std::string& text) {
    const auto size = std::min(text.size(), kMaximumText);
    write(static_cast<std::uint16_t>(size));
    message_.append(text, 0, size);
  }
  template <typename T>
  requires std::is_enum_v<T>
  void write(T value) { write(static_cast<std::underlying_type_t<T>>(value)); }
  template <typename T>
  void write(const std::optional<T>& value) {
    write(value.has_value());
    if (value) {
      write(*value);
    }
  }
  template <typename T>
  void write(const std::vector<T>& list) {
    const auto size = std::min(list.size(), kMaximumList);
    write(static_cast<std::uint16_t>(size));
    std::for_each_n(list.begin(), size, [this](const T& value) { write(value); });
  }
  template <Group T>
  void write(const T& group) {
    transfer(*this, group);
  }

  std::string message_;
};

class Reader {
 public:
  explicit Reader(std::string_view message) : rest_(message) {}

  template <typename... Values>
  void operator()(Values&... values) {
    (read(values), ...);
  }
  bool isAtEnd() const { return isValid_ && rest_.empty(); }

 private:
  std::string_view take(std::size_t size) {
    isValid_ = isValid_ && size <= rest_.size();
    const auto taken = isValid_ ? rest_.substr(0, size) : std::string_view();
    rest_.remove_prefix(taken.size());
    return taken;
  }
  void read(Number auto& number) {
    const auto bytes = take(sizeof number);
    // Invalid messages are not used.
    if (isValid_) {
      std::memcpy(&number, bytes.data(), sizeof number);
    }
  }
  void read(bool& value) {
    std::uint8_t number = 0;
    read(number);
    isValid_ = isValid_ && number <= 1;
    value = number == 1;
  }
  void read(std::chrono::nanoseconds& time) {
    std::int64_t count = 0;
    read(count);
    isValid_ = isValid_ && count >= 0;
    time = std::chrono::nanoseconds(count);
  }
  void read(std::string& text) {
    std::uint16_t size = 0;
    read(size);
    isValid_ = isValid_ && size <= kMaximumText;
    text = take(size);
  }
  void read(InspectionQuestion::Kind& kind) {
    readEnumeration(kind, InspectionQuestion::Kind::stamp,
                    InspectionQuestion::Kind::registeredPath);
  }
  void read(HolderSearchStep::Result& result) {
    readEnumeration(result, HolderSearchStep::Result::found, HolderSearchStep::Result::unfinished);
  }
  template <typename T>
  void readEnumeration(T& value, T first, T last) {
    std::underlying_type_t<T> number = 0;
    read(number);
    value = static_cast<T>(number);
    isValid_ = isValid_ && first <= value && value <= last;
  }
  template <typename T>
  void read(std::optional<T>& value) {
    bool isPresent = false;
    read(isPresent);
    if (isPresent) {
      read(value.emplace());
    }
  }
  template <typename T>
  void read(std::vector<T>& list) {
    std::uint16_t size = 0;
    read(size);
    isValid_ = isValid_ && size <= kMaximumList;
    list.resize(isValid_ ? size : 0);
    for (T& value : list) {
      read(value);
    }
  }
  template <Group T>
  void read(T& group) {
    transfer(*this, group);
  }

  std::string_view rest_;
  bool isValid_ = true;
};

// Value is const for a Writer.
template <typename Archive, typename Value>
void transfer(Archive& archive, Value& value) {
  using Type = std::remove_const_t<Value>;
  if constexpr (std::same_as<Type, FileIdentity>) {
    archive(value.device, value.inode);
  } else if constexpr (std::same_as<Type, CommonView>) {
    archive(value.root, value.mountNamespace);
  } else if constexpr (std::same_as<Type, ProcessStamp>) {
    archive(value.startTime, value.stackStart, value.uid, value.realUser);
  } else if constexpr (std::same_as<Type, Process>) {
    archive(value.pid, value.stamp, value.executable, value.executableFile,
            value.isExecutableGenuine, value.isExecutableDeleted, value.isExecutableSettled,
            value.controlGroup, value.serviceGroup, value.executableLink, value.mountGeneration);
  } else if constexpr (std::same_as<Type, HolderSearch>) {
    archive(value.number, value.inode, value.first, value.preferredUser);
  } else if constexpr (std::same_as<Type, HolderSearchStep>) {
    archive(value.result, value.holder);
  } else if constexpr (std::same_as<Type, InspectionQuestion>) {
    archive(value.kind, value.number, value.process, value.file, value.search, value.candidate,
            value.work, value.longest, value.path);
  } else {
    static_assert(std::same_as<Type, InspectionAnswer>);
    archive(value.number, value.isPositive, value.work, value.process, value.step, value.view,
            value.text);
  }
}

template <typename Message>
std::string encodeMessage(const Message& message) {
  Writer writer;
  writer(kInspectionVersion, message);
  return writer.take();
}

template <typename Message>
std::optional<Message> decodeMessage(std::string_view bytes) {
  Reader reader(bytes);
  std::uint16_t version = 0;
  Message message;
  reader(version, message);
  return version == kInspectionVersion && reader.isAtEnd() ? std::optional(std::move(message))
                                                           : std::nullopt;
}

}  // namespace

std::string encode(const InspectionQuestion& question) {
  return encodeMessage(question);
}

std::string encode(const InspectionAnswer& answer) {
  return encodeMessage(answer);
}

std::optional<InspectionQuestion> decodeInspectionQuestion(std::string_view message) {
  return decodeMessage<InspectionQuestion>(message);
}

std::optional<InspectionAnswer> decodeInspectionAnswer(std::string_view message) {
  return decodeMessage<InspectionAnswer>(message);
}

}  // namespace ostravel::linuxplatform
