#include "Extension/FilterDataProvider/BuiltInLists.h"

namespace ostravel::built_in {

std::unordered_set<std::string> bypassAppIds() {
  return {
      // This system.
      "com.ostravel.proxy-sidecar",
      "com.ostravel.helper",
      "com.ostravel.desktop",
      "com.ostravel.desktop.extension",
      "com.ostravel.desktop.extensionhost",
      // The system's own daemons and its web engine.
      "com.apple.mDNSResponder",
      "com.apple.nsurlsessiond",
      "com.apple.trustd",
      "com.apple.geod",
      "com.apple.cloudd",
      "com.apple.WebCore",
      // VPN clients: their tunnels must reach the network directly.
      "com.cisco.anyconnect",
      "com.mullvad.vpn",
      "com.nordvpn.osx",
      "com.ivpn.client",
      "com.tunnelbear.mac.TunnelBear",
      "io.tailscale.ipn.macos",
      "net.sparklabs.Viscosity",
      "com.fortinet.forticlient",
      "com.fortinet.forticlient.vpn",
      "com.fortinet.FortiClient",
      "com.fortinet.forticlient.macos",
      "com.fortinet.forticlient.fct_vulnerabilities",
  };
}

std::vector<std::string> hardBypassDomains() {
  return {
      // Platform services.
      ".apple.com",
      ".icloud.com",
      ".cdn-apple.com",
      // Certificate authorities.
      ".digicert.com",
      ".entrust.net",
      // Cloud relay ingress and cloud gateway.
      "mask.icloud.com",
      "gateway.icloud.com",
      // Application store and client signalling.
      "play.google.com",
      ".play.google.com",
      "signaler-pa.clients6.google.com",
      ".signaler-pa.clients6.google.com",
      "alt1-mtalk.google.com",
      "alt2-mtalk.google.com",
      // Conferencing client's static content.
      "statics.teams.cdn.office.net",
      "statics.teams.cdn.live.net",
      // Code editor.
      ".cursor-cdn.com",
      "metrics.cursor.sh",
      // Video and image delivery.
      ".googlevideo.com",
      "googlevideo.com",
      ".ytimg.com",
      "ytimg.com",
      // Fonts and static content.
      "fonts.googleapis.com",
      ".gstatic.com",
      "gstatic.com",
      // Tag manager, analytics, advertising.
      ".googletagmanager.com",
      "googletagmanager.com",
      ".google-analytics.com",
      "google-analytics.com",
      ".doubleclick.net",
      "doubleclick.net",
      // Captcha services.
      ".hcaptcha.com",
      "hcaptcha.com",
      ".recaptcha.net",
      "recaptcha.net",
      // Cookie consent.
      "cdn.cookielaw.org",
      // Media delivery.
      ".nflxvideo.net",
      "nflxvideo.net",
      ".scdn.co",
      "scdn.co",
  };
}

std::vector<std::string> realtimeMediaDomains() {
  return {
      "meet.google.com",
      "teams.microsoft.com",
      ".teams.microsoft.com",
      "teams.cloud.microsoft",
      ".teams.cloud.microsoft",
      "lync.com",
      ".lync.com",
      "join.skype.com",
      ".skype.com",
      "skype.com",
      ".zoom.us",
      "zoom.us",
      ".zoom.com",
      "zoom.com",
      ".zoomgov.com",
      "zoomgov.com",
      ".applications.zoom.us",
      "applications.zoom.us",
  };
}

std::vector<std::string> interceptedPorts() {
  // The web, and the usual ports of model servers and development servers.
  return {"80", "443", "11434", "1234", "8000", "5000", "7860"};
}

}  // namespace ostravel::built_in
