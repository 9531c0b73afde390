#include "Platform/Linux/Identity/ApplicationNames.h"

#include <algorithm>
#include <initializer_list>

namespace ostravel::linuxplatform {

namespace {

// The users that systemd allocates to services with DynamicUser=yes (systemd.exec(5)).
constexpr uid_t kFirstDynamicUser = 61184;
constexpr uid_t kLastDynamicUser = 65519;

// Names consist of ASCII characters only.
std::string lowercased(std::string_view text) {
  std::string result(text);
  for (char& character : result) {
    if (character >= 'A' && character <= 'Z') {
      character = static_cast<char>(character - 'A' + 'a');
    }
  }
  return result;
}

}  // namespace

ApplicationNames::ApplicationNames(const std::vector<std::string>& reserved,
                                   SystemUsers systemUsers)
    : systemUsers_(systemUsers) {
  for (const std::string& name : reserved) {
    reserved_.insert(lowercased(name));
  }
}

std::optional<std::string> ApplicationNames::nameOf(const Process& process, uid_t socketUser,
                                                    const ProcessTable& processes) const {
  auto name = groupNameOf(process, socketUser);
  if (!name) {
    name = processes.appImageOf(process);
  }
  if (name && reserved_.contains(lowercased(*name))) {
    return std::nullopt;
  }
  return name;
}

std::optional<std::string> ApplicationNames::groupNameOf(const Process& process,
                                                         uid_t socketUser) const {
  const auto group = ApplicationGroup::of(process.controlGroup);
  if (group.kind == ApplicationGroup::Kind::other || !isBelieved(group, process, socketUser)) {
    return std::nullopt;
  }
  if (group.kind != ApplicationGroup::Kind::container) {
    return group.name;
  }
  if (process.executable.empty() || process.isExecutableDeleted) {
    return std::nullopt;
  }
  const std::string user = group.claimedBy ? std::to_string(*group.claimedBy) + "/" : "";
  return process.executable + "//container/" + user + group.name;
}

bool ApplicationNames::isBelieved(const ApplicationGroup& group, const Process& process,
                                  uid_t socketUser) const {
  if (group.kind == ApplicationGroup::Kind::container) {
    // Its processes may have any user; its name includes the user who claims it.
    return true;
  }
  const auto isRight = [this, &group](uid_t user) {
    return group.claimedBy ? user == *group.claimedBy : mayRunServices(user);
  };
  const auto users = {process.stamp.uid, process.stamp.realUser, socketUser};
  return std::ranges::all_of(users, isRight);
}

bool ApplicationNames::mayRunServices(uid_t user) const {
  return systemUsers_.includes(user) || (user >= kFirstDynamicUser && user <= kLastDynamicUser);
}

}  // namespace ostravel::linuxplatform
