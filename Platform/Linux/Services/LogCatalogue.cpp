#include "Platform/Linux/Services/LogCatalogue.h"

#include <string>
#include <unordered_map>

namespace ostravel::linuxplatform {

namespace {

using Catalogue = std::unordered_map<std::string_view, std::string_view>;

// Never change an identifier: people have written it into their queries.
const Catalogue& catalogue() {
  static const Catalogue entries{
      // A flow's handshake and tunnel.
      {"OstravelProxy: Sending CONNECT handshake (details private)",
       "b3efeb3daa8248329ce70c1dbc75f9c6"},
      {"OstravelProxy: Handshake successful.", "69757faa279f477ea8e24aec873160fc"},
      {"OstravelProxy: Handshake failed (response status not 200)",
       "281fea559536476b83fa1775c391002d"},
      {"OstravelProxy: Handshake failed (invalid response)", "7ca96432f0e0424fb4b96295616c6b80"},
      {"OstravelProxy: CONNECT handshake timed out", "bba76ee786d045bf8cea021fc158a1ba"},
      {"OstravelProxy: Error writing CONNECT: %{public}s", "41bb2ba84e39412180910733d8651c45"},
      {"OstravelProxy: The connection to the proxy failed: %{public}s",
       "6a57a7498ba64c7684cc1fe2c520fff0"},
      {"OstravelProxy: The proxy closed the connection without an answer",
       "a891e960623946a788c8580fe582e62a"},
      {"OstravelProxy: Rejecting flow due to handshake backlog",
       "430f55ff9929483ca781db776154b532"},
      {"OstravelProxy: Failed to open flow: %{public}s", "162d1db3cb66481dbed06653c7793618"},
      {"OstravelProxy: App read error: %{public}s", "aed98eed40c5444e9cad3ecb078c8035"},
      {"OstravelProxy: App write error: %{public}s", "aed98eed40c5444e9cad3ecb078c8035"},
      {"OstravelProxy: Proxy read error: %{public}s", "aed98eed40c5444e9cad3ecb078c8035"},
      {"OstravelProxy: Proxy write error: %{public}s", "aed98eed40c5444e9cad3ecb078c8035"},
      // The provider.
      {"OstravelProxy: Starting Proxy provider...", "a69770c92b7b4a9182aa951937e25f64"},
      {"OstravelProxy: Rules set successfully", "b0c05802fcd141f48a36fd9bf27e361c"},
      {"OstravelProxy: Failed to set rules: %{public}s", "4bc332c8050641598aa6e9e4dcfefda5"},
      {"OstravelProxy: Stopping Proxy", "edc64a0672224f55af58ec422b97901a"},
      // Interception.
      {"OstravelProxy: Flows left to the system reason=%{public}s count=%{public}d "
       "last_user=%{public}s",
       "2aed266330b4457a8d986188dfe8f735"},
      {"OstravelProxy: Rules installed again", "135ad08681b141bca942b3ccd7a991c6"},
      {"OstravelProxy: Redirected connections do not arrive over %{public}s (%{public}s): a rule "
       "of another program drops them, or keeps them from being tracked, on the loopback "
       "interface; flows are left to the system, and this is tried again soon, then every "
       "%{public}d s",
       "e8055760bf934f199e043af71fc3edea"},
      {"OstravelProxy: Redirected connections arrive again over %{public}s",
       "ab2afc2df25642d8b6832bcdac883f28"},
      {"OstravelProxy: Registrations replaced count=%{public}d",
       "109b70329e8e491cbb3c264aa4fc919e"},
      {"OstravelProxy: Registrations not replaced, those that were in force still are",
       "ae2e3bb670b849cb84a20daf57ca8500"},
      // Trouble.
      {"OstravelProxy: The queue of packets fails: %{public}s", "a9dc6a1875434b4585960e2bf3a83e84"},
      {"OstravelProxy: Packets held for too long were let go count=%{public}d",
       "481a6c3e73fa43da999687abd45a1721"},
      {"OstravelProxy: The guardian has ended: hangs are no longer detected",
       "dc890b72b1954f2a8e49ba10d7486ef7"},
      {"OstravelProxy: Log lines dropped count=%{public}d", "a2903e27dd9a4c949cd614d51b959122"},
  };
  return entries;
}

}  // namespace

std::string_view messageIDOf(std::string_view format) {
  const auto found = catalogue().find(format);
  return found == catalogue().end() ? std::string_view() : found->second;
}

}  // namespace ostravel::linuxplatform
