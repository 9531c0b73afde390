#pragma once

#include <cstdint>
#include <string>

namespace ostravel::companion::test {

// An event as the extension sends it.
inline const std::string kEvent =
    R"({"message_id":"0B7E6A34-6F1C-4E64-9C9A-0A1B2C3D4E5F","timestamp":1763271815.123,)"
    R"("logged_at":"2025-11-16T05:43:35Z","type":"extension_proxy_event",)"
    R"("current_signal":"proxy_reachable","flow_id":"6F1C","component":"network_extension",)"
    R"("level":"info","code":"extension.flow_opened","message":"Tunnel opened",)"
    R"("metrics":{"duration_ms":12.5,"count":3},)"
    R"("context":{"app_id":"org.example.browser","proxy":"127.0.0.1:8080","detail":"a\/b c"}})";

inline std::string replaced(std::string text, const std::string& what, const std::string& with) {
  return text.replace(text.find(what), what.size(), with);
}

inline std::string frame(const std::string& body) {
  std::string bytes;
  for (const unsigned shift : {24U, 16U, 8U, 0U}) {
    bytes += static_cast<char>((static_cast<std::uint32_t>(body.size()) >> shift) & 0xFFU);
  }
  return bytes + body;
}

}  // namespace ostravel::companion::test
