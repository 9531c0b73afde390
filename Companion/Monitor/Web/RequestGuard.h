#pragma once

#include <string>
#include <string_view>

namespace ostravel::companion {

// What a request shows of itself.
struct RequestClaims {
  std::string method;
  std::string host;           // the header; empty if there is none
  std::string origin;         // the same
  std::string authorization;  // the same
  std::string token;          // of the query
};

// Decides who may see the page. A token keeps other users of the machine out; the names in Host and
// Origin keep out a web page that has made its own name lead to this address (DNS rebinding) or
// that reads across origins. Immutable; usable from any thread.
class RequestGuard {
 public:
  // address: where the server listens, without the port.
  RequestGuard(std::string address, std::string token);

  // The status to refuse the request with: 400, 401, 403, or 405; 0 to serve it. `needsToken` is
  // false for the page's own files, which are the same for everybody.
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
