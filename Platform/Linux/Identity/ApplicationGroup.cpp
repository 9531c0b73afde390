#include "Platform/Linux/Identity/ApplicationGroup.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <utility>
#include <vector>

namespace ostravel::linuxplatform {

namespace {

using Kind = ApplicationGroup::Kind;

constexpr std::string_view kScope = ".scope";
constexpr std::string_view kService = ".service";
constexpr std::string_view kSlice = ".slice";
constexpr std::string_view kSnap = "snap.";

constexpr std::size_t kContainerIdSize = 64;
// As container engines display it.
constexpr std::size_t kShortContainerIdSize = 12;
// systemd limits unit names, which are file names as well, to this size.
constexpr std::size_t kMaximumNameSize = 255;

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (true) {
    const auto end = text.find(separator);
    parts.push_back(text.substr(0, end));
    if (end == std::string_view::npos) {
      return parts;
    }
    text.remove_prefix(end + 1);
  }
}

// The text between prefix and suffix; empty if it does not have both.
std::string_view between(std::string_view text, std::string_view prefix, std::string_view suffix) {
  if (text.size() < prefix.size() + suffix.size() || !text.starts_with(prefix) ||
      !text.ends_with(suffix)) {
    return {};
  }
  text.remove_prefix(prefix.size());
  text.remove_suffix(suffix.size());
  return text;
}

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

bool isLetter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

std::optional<uid_t> userIn(std::string_view text) {
  uid_t user = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), user);
  const bool isNumber = error == std::errc() && end == text.data() + text.size();
  return isNumber ? std::optional(user) : std::nullopt;
}

// Undoes systemd's escaping of one component of a unit name (systemd-escape(1)): "\x2d" is "-".
// Empty if there is another escape.
std::string unescaped(std::string_view text) {
  constexpr std::size_t kEscapeSize = 4;
  std::string result;
  while (!text.empty()) {
    if (text.front() != '\\') {
      result += text.front();
      text.remove_prefix(1);
      continue;
    }
    unsigned byte = 0;
    const auto digits = text.substr(0, kEscapeSize);
    const char* const last = digits.data() + digits.size();
    if (digits.size() < kEscapeSize || digits[1] != 'x' ||
        std::from_chars(digits.data() + 2, last, byte, 16).ptr != last) {
      return {};
    }
    result += static_cast<char>(byte);
    text.remove_prefix(kEscapeSize);
  }
  return result;
}

// True for the IDs that desktop files, Flatpak and D-Bus permit, except names of services and Snap
// packages. They contain no "/", so an ID never looks like a path.
bool isApplicationId(std::string_view name) {
  const auto isPermitted = [](char character) {
    return isLetter(character) || isDigit(character) ||
           std::string_view("._-+").find(character) != std::string_view::npos;
  };
  return !name.empty() && name.size() <= kMaximumNameSize &&
         std::ranges::all_of(name, isPermitted) && name.front() != '.' &&
         !name.ends_with(kService) && !name.starts_with(kSnap);
}

// The ID in "app-[LAUNCHER-]ID-RANDOM.scope" or "app-[LAUNCHER-]ID[@RANDOM].service". Some
// launchers omit the random part of a scope, or separate that of a service with "-".
std::string_view idIn(std::string_view unit) {
  const bool isScope = unit.ends_with(kScope);
  std::string_view name = between(unit, "app-", isScope ? kScope : kService);
  if (!isScope) {
    name = name.substr(0, name.find('@'));
  }
  const auto parts = split(name, '-');
  switch (parts.size()) {
    case 1:
      return parts[0];
    case 2: {
      const auto hasDot = [](std::string_view part) {
        return part.find('.') != std::string_view::npos;
      };
      const bool beginsWithLauncher =
          isScope ? hasDot(parts[1]) && !hasDot(parts[0]) : !std::ranges::all_of(parts[1], isDigit);
      return beginsWithLauncher ? parts[1] : parts[0];
    }
    case 3:
      return parts[1];
    default:
      return {};
  }
}

// "snap.PACKAGE.APPLICATION-RANDOM.scope", also with "." before the random part, and
// "snap.PACKAGE.APPLICATION.service". Empty for other units.
std::string snapIn(std::string_view unit) {
  const auto parts = split(unit, '.');
  constexpr std::size_t kLeastParts = 4;
  if (parts.size() < kLeastParts || !unit.starts_with(kSnap)) {
    return {};
  }
  const auto isPermitted = [](char character) {
    return isLetter(character) || isDigit(character) || character == '-' || character == '_';
  };
  const std::string package = unescaped(parts[1]);
  const bool isPackage = !package.empty() && std::ranges::all_of(package, isPermitted);
  return isPackage ? std::string(kSnap) + package : std::string();
}

std::string shortContainerId(std::string_view text) {
  const auto isHexadecimal = [](char character) {
    return isDigit(character) || (character >= 'a' && character <= 'f');
  };
  if (text.size() != kContainerIdSize || !std::ranges::all_of(text, isHexadecimal)) {
    return {};
  }
  return std::string(text.substr(0, kShortContainerIdSize));
}

// The container whose own group has this name; empty if there is none.
std::string containerIn(std::string_view group) {
  for (const std::string_view engine :
       {"docker-", "libpod-", "crio-", "cri-containerd-", "nerdctl-"}) {
    for (const std::string_view suffix : {kScope, std::string_view()}) {
      auto id = shortContainerId(between(group, engine, suffix));
      if (!id.empty()) {
        return id;
      }
    }
  }
  // Without systemd, some engines use the plain ID.
  auto id = shortContainerId(group);
  if (!id.empty()) {
    return id;
  }
  // Containers of systemd-machined(8) and of LXC have names.
  const auto machine = between(group, "machine-", kScope);
  std::string name =
      machine.empty() ? std::string(between(group, "lxc.payload.", "")) : unescaped(machine);
  const auto isPermitted = [](char character) {
    return isLetter(character) || isDigit(character) || character == '-' || character == '.';
  };
  return std::ranges::all_of(name, isPermitted) ? name : std::string();
}

ApplicationGroup describe(std::string_view unit, std::optional<uid_t> claimedBy) {
  if (auto container = containerIn(unit); !container.empty()) {
    return {Kind::container, std::move(container), claimedBy};
  }
  if (!unit.ends_with(kScope) && !unit.ends_with(kService)) {
    return {};
  }
  if (auto package = snapIn(unit); !package.empty()) {
    return {Kind::application, std::move(package), claimedBy};
  }
  if (auto id = unescaped(idIn(unit)); isApplicationId(id)) {
    return {Kind::application, std::move(id), claimedBy};
  }
  // A user's services may be named like the system's.
  if (unit.ends_with(kService) && !claimedBy) {
    return {Kind::service, std::string(unit), std::nullopt};
  }
  return {};
}

}  // namespace

ApplicationGroup ApplicationGroup::of(std::string_view controlGroup) {
  if (!controlGroup.starts_with('/')) {
    return {};
  }
  auto groups = split(controlGroup.substr(1), '/');
  std::optional<uid_t> user;
  auto group = groups.begin();
  const auto skipSlices = [&group, &groups] {
    group = std::find_if_not(group, groups.end(),
                             [](std::string_view each) { return each.ends_with(kSlice); });
  };
  skipSlices();
  if (group != groups.end() && group->starts_with("user@")) {
    user = userIn(between(*group, "user@", kService));
    if (!user || groups.front() != "user.slice") {
      return {};
    }
    ++group;
    skipSlices();
  }
  if (group == groups.end()) {
    return {};
  }
  // Container engines without systemd nest the container's group in groups with plain names.
  const auto isPlain = [](std::string_view each) {
    return each.find('.') == std::string_view::npos && containerIn(each).empty();
  };
  if (!user) {
    const auto nested = std::find_if_not(group, groups.end(), isPlain);
    if (nested != groups.end() && !containerIn(*nested).empty()) {
      group = nested;
    }
  }
  return describe(*group, user);
}

}  // namespace ostravel::linuxplatform
