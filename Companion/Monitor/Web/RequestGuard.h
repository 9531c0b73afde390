#pragma once

#include <string>
#include <string_view>

namespace ostravel::companion {

// The credentials and headers of a request.
struct RequestClaims {
  std::string method;
  std::string host;           // the header; empty if there is none
  std::string origin;         // the same
  std::string authorization;  // the same
  std::string token;          // of the query
};

// Decides which requests are served. A token keeps out other users of the machine; the names in
// Host and Origin keep out web pages whose own name resolves to this address (DNS rebinding) or
// that read across origins. Immutable; usable from any thread.
class RequestGuard {
 public:
  // address: on which the server listens, without the port.
  RequestGuard(std::string address, std::string token);

  // The status with which to refuse the request: 400, 401, 403, or 405; 0 to serve it. `needsToken`
  // is false for the page's own files, which contain no data.
  int refusal(const RequestClaims& claims, bool needsToken) const;

  const std::string& token() const { return token_; }

 private:
  bool isOurHost(std::string_view host) const;

  std::string address_;
  std::string token_;
};

// 32 hexadecimal digits from the kernel's random numbers. Throws std::system_error.
std::string randomToken();

}  // namespace ostravel::companion
