#pragma once

#include <string>

#include "Companion/Fleet/FleetMessage.h"

namespace ostravel::companion::test {

inline FleetMessage messageNumber(int number, const std::string& host = "host-1") {
  return {.host = host,
          .bootId = "boot-1",
          .id = host + "-" + std::to_string(number),
          .json = "{\"number\":" + std::to_string(number) + "}"};
}

}  // namespace ostravel::companion::test
