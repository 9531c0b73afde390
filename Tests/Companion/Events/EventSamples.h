#pragma once

#include <cstdint>
#include <string>

namespace ostravel::companion::test {

// Events as the extension sends them.
inline const std::string kEvent =
    R"({"message_id":"0B7E6A34-6F1C-4E64-9C9A-0A1B2C3D4E5F","timestamp":1763271815.123,)"
    R"("logged_at":"2025-11-16T05:43:35Z","type":"extension_proxy_event",)"
    R"("current_signal":"connect_handshake_succeeded",)"
    R"("flow_id":"D7A6D6B1-53C9-4E54-8E4C-7D0D53E0F2F4","component":"network_extension",)"
    R"("level":"info","code":"extension.connect_handshake_succeeded",)"
    R"("message":"CONNECT handshake completed",)"
    R"("metrics":{"elapsed_ms":1.25,"leftover_bytes":17.0},)"
    R"("context":{"app_id":"\/usr\/bin\/curl"}})";

inline const std::string kTunnelClosed =
    R"({"message_id":"5B0F0C2C-3B58-4B0B-8E1D-9D2A9B3C7A11","timestamp":1763271816.5,)"
    R"("logged_at":"2025-11-16T05:43:36Z","type":"extension_proxy_event",)"
    R"("current_signal":"tunnel_closed","flow_id":"D7A6D6B1-53C9-4E54-8E4C-7D0D53E0F2F4",)"
    R"("component":"network_extension","level":"error","code":"extension.tunnel_closed",)"
    R"("message":"Tunnel closed with error",)"
    R"("context":{"app_id":"\/usr\/bin\/curl","detail":"Connection reset by peer"}})";

inline const std::string kProviderStarted =
    R"({"message_id":"7A1C8E62-6C8B-4E86-A5B7-0F2D6C6B9E90","timestamp":1763271810.25,)"
    R"("logged_at":"2025-11-16T05:43:30Z","type":"extension_proxy_event",)"
    R"("current_signal":"provider_started","component":"network_extension",)"
    R"("level":"info","code":"extension.provider_started",)"
    R"("message":"Transparent proxy provider started"})";

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
