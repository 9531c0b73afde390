#include "Companion/Sidecar/NameLookup.h"

#include <asio/post.hpp>
#include <utility>

namespace ostravel::companion {

NameLookup::NameLookup(asio::any_io_executor executor)
    : executor_(std::move(executor)), threads_(kThreads) {}

void NameLookup::lookUp(const HostPort& target, LookupDone done) {
  using asio::ip::tcp;
  asio::error_code error;
  const asio::ip::address address = asio::ip::make_address(target.host, error);
  if (!error) {
    asio::post(executor_, [done = std::move(done), endpoint = tcp::endpoint(address, target.port)] {
      done({}, {endpoint});
    });
    return;
  }
  asio::post(threads_, [executor = executor_, resolverExecutor = threads_.get_executor(), target,
                        done = std::move(done)]() mutable {
    tcp::resolver resolver(resolverExecutor);
    asio::error_code lookupError;
    // Not "address configured": a machine with loopback alone still reaches its own services.
    const auto found = resolver.resolve(target.host, std::to_string(target.port),
                                        tcp::resolver::numeric_service, lookupError);
    LookupResult endpoints;
    for (const auto& entry : found) {
      endpoints.push_back(entry.endpoint());
    }
    if (!lookupError && endpoints.empty()) {
      lookupError = asio::error::host_not_found;
    }
    asio::post(executor, [done = std::move(done), lookupError, endpoints = std::move(endpoints)] {
      done(lookupError, endpoints);
    });
  });
}

}  // namespace ostravel::companion
