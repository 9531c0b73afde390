#pragma once

#include <asio/ip/tcp.hpp>
#include <functional>
#include <string>
#include <string_view>

#include "Companion/Shared/TimeText.h"
#include "Companion/Sidecar/ConnectRequest.h"
#include "Companion/Sidecar/HTTPStatus.h"
#include "Companion/Sidecar/TunnelRelay.h"

namespace ostravel::companion {

// Writes the sidecar's log: one line for each tunnel that is established, refused or abandoned by
// its client before, and optionally one for each that ends.
//
//   05:43:35.120 example.org:443 app=browser flow=6F1C... established to 192.0.2.7:443
//   05:43:35.131 gone.example:443 app=- flow=- refused 502 Bad Gateway: Connection refused
//   05:43:35.140 slow.example:443 app=- flow=- abandoned by the client
//   05:43:36.002 example.org:443 app=browser flow=6F1C... ended orderly sent=517 received=4021
//
// Text from the network is made printable first.
class TunnelLog {
 public:
  enum class Verbosity { beginnings, beginningsAndEnds };
  using Sink = std::function<void(std::string_view line)>;

  TunnelLog(Verbosity verbosity, Sink sink, TimeStyle time = TimeStyle::timeOfDay);

  void established(const ConnectRequest& request, const asio::ip::tcp::endpoint& origin) const;
  // `request` is default-constructed if none could be read.
  void refused(const ConnectRequest& request, HTTPStatus status, std::string_view reason) const;
  void abandoned(const ConnectRequest& request) const;
  void ended(const ConnectRequest& request, const TunnelRelay::Summary& summary) const;

 private:
  void write(const ConnectRequest& request, std::string_view result) const;

  Verbosity verbosity_;
  Sink sink_;
  TimeStyle time_;
};

}  // namespace ostravel::companion
