#include "Companion/Sidecar/NameLookup.h"

#include <utility>

#include "Companion/Sidecar/NameQuery.h"

namespace ostravel::companion {

NameLookup::NameLookup(asio::any_io_executor executor, ResolverSettings settings)
    : executor_(std::move(executor)), settings_(std::move(settings)) {}

std::shared_ptr<PendingLookup> NameLookup::lookUp(const HostPort& target, LookupDone done) {
  auto query = std::make_shared<NameQuery>(executor_, target.port, std::move(done));
  if (const auto literal = literalEndpoint(target)) {
    query->finish({}, {*literal});
  } else {
    query->start(target.host, settings_);
  }
  return query;
}

}  // namespace ostravel::companion
