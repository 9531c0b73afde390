#include "Companion/Sidecar/ConnectSession.h"

#include <asio/write.hpp>
#include <utility>
#include <variant>

#include "Companion/Sidecar/SocketState.h"

namespace ostravel::companion {
namespace {

constexpr std::string_view kEstablished = "HTTP/1.1 200 Connection established\r\n\r\n";

// The two ends have already grouped the bytes; holding back small pieces would only add a delay.
void sendWithoutDelay(asio::ip::tcp::socket& socket) {
  asio::error_code ignored;
  socket.set_option(asio::ip::tcp::no_delay(true), ignored);
}

}  // namespace

ConnectSession::ConnectSession(Socket client, const SessionEnvironment& environment)
    : client_(std::move(client)),
      origin_(client_.get_executor()),
      environment_(environment),
      deadline_(client_.get_executor()) {}

void ConnectSession::start() {
  sendWithoutDelay(client_);
  limitStep(environment_.limits.header, &ConnectSession::headerExpired);
  readHeader();
}

void ConnectSession::readHeader() {
  const std::span<char> space = header_.space();
  client_.async_read_some(
      asio::buffer(space.data(), space.size()),
      [self = shared_from_this(), step = step_](asio::error_code error, std::size_t size) {
        if (step != self->step_) {
          return;  // It has timed out meanwhile.
        }
        if (!error) {
          self->headerRead(self->header_.commit(size));
          return;
        }
        if (error == asio::error::eof && !self->header_.empty()) {
          // The client may have closed only its sending side and still read the answer.
          self->refuse(HTTPStatus::badRequest, "ended within the request header");
          return;
        }
        self->close();
      });
}

void ConnectSession::headerRead(RequestHeader::State state) {
  switch (state) {
    case RequestHeader::State::incomplete:
      readHeader();
      break;
    case RequestHeader::State::complete:
      requestRead();
      break;
    case RequestHeader::State::malformed:
      refuse(HTTPStatus::badRequest, "a line of the request header does not end in CRLF");
      break;
    case RequestHeader::State::tooLong:
      refuse(HTTPStatus::headerTooLarge, {});
      break;
  }
}

void ConnectSession::requestRead() {
  std::variant<ConnectRequest, HTTPStatus> parsed = parseConnectRequest(header_.header());
  if (const HTTPStatus* status = std::get_if<HTTPStatus>(&parsed)) {
    refuse(*status, {});
    return;
  }
  request_ = std::get<ConnectRequest>(std::move(parsed));
  isEstablishing_ = true;
  watchClient();
  limitStep(environment_.limits.lookup, &ConnectSession::lookupExpired);
  // Weak: the session owns the lookup.
  lookup_ = environment_.lookUp(
      request_.target, [session = weak_from_this(), step = step_](asio::error_code error,
                                                                  const LookupResult& endpoints) {
        const std::shared_ptr<ConnectSession> self = session.lock();
        if (!self || step != self->step_) {
          return;  // It has timed out meanwhile.
        }
        if (error) {
          self->refuseUnreachable(error);
          return;
        }
        self->endpoints_ = endpoints;
        self->connectNext(asio::error::host_not_found);
      });
}

void ConnectSession::connectNext(asio::error_code previousError) {
  if (nextEndpoint_ == endpoints_.size()) {
    refuseUnreachable(previousError);
    return;
  }
  const asio::ip::tcp::endpoint endpoint = endpoints_[nextEndpoint_++];
  asio::error_code error;
  origin_.close(error);
  origin_.open(endpoint.protocol(), error);
  if (error) {
    connectNext(error);
    return;
  }
  connectExpired_ = false;
  limitStep(environment_.limits.connect, &ConnectSession::connectExpired);
  origin_.async_connect(endpoint, [self = shared_from_this()](asio::error_code connectError) {
    if (!self->isEstablishing_) {
      return;  // The client has left.
    }
    if (self->connectExpired_) {
      connectError = asio::error::timed_out;
    }
    if (connectError) {
      self->connectNext(connectError);
      return;
    }
    self->connected();
  });
}

void ConnectSession::connected() {
  endStep();
  isEstablishing_ = false;
  asio::error_code ignored;
  client_.cancel(ignored);
  sendWithoutDelay(origin_);
  environment_.log.established(request_, endpoints_[nextEndpoint_ - 1]);
  asio::async_write(client_, asio::buffer(kEstablished),
                    [self = shared_from_this()](asio::error_code error, std::size_t) {
                      auto ended = [&environment = self->environment_,
                                    request = self->request_](const TunnelRelay::Summary& summary) {
                        environment.log.ended(request, summary);
                        environment.ended();
                      };
                      if (error) {
                        asio::error_code unused;
                        self->origin_.set_option(Socket::linger(true, 0), unused);
                        self->origin_.close(unused);
                        self->client_.close(unused);
                        ended({.outcome = TunnelRelay::Outcome::reset});
                        return;
                      }
                      const auto relay = std::make_shared<TunnelRelay>(
                          std::move(self->client_), std::move(self->origin_),
                          self->environment_.relays, std::move(ended));
                      relay->start(self->header_.remainder());
                    });
}

void ConnectSession::watchClient() {
  client_.async_wait(Socket::wait_read, [self = shared_from_this()](asio::error_code error) {
    if (!error && self->isEstablishing_) {
      self->judgeClient();
    }
  });
}

void ConnectSession::judgeClient() {
  switch (stateOfReading(client_)) {
    case ReadState::nothing:
      watchClient();
      break;
    case ReadState::bytes:
      // The bytes stay unread until the tunnel is established, and hide an end that follows them.
      watchClientForReset();
      break;
    case ReadState::ended:
      // A client that has sent bytes for the origin may have closed only its sending side and still
      // read; one that has sent nothing no longer needs the tunnel.
      if (header_.remainder().empty()) {
        abandon();
      } else {
        watchClientForReset();
      }
      break;
    case ReadState::failed:
      abandon();
      break;
  }
}

void ConnectSession::watchClientForReset() {
  client_.async_wait(Socket::wait_error, [self = shared_from_this()](asio::error_code error) {
    if (error || !self->isEstablishing_) {
      return;
    }
    switch (takeDisturbance(self->client_)) {
      case Disturbance::reset:
        self->abandon();
        break;
      case Disturbance::urgentByte:
        self->watchClientForReset();
        break;
      case Disturbance::none:
        break;
    }
  });
}

void ConnectSession::abandon() {
  environment_.log.abandoned(request_);
  close();
}

void ConnectSession::refuseUnreachable(asio::error_code error) {
  const bool timedOut = error == asio::error::timed_out;
  refuse(timedOut ? HTTPStatus::gatewayTimeout : HTTPStatus::badGateway, error.message());
}

void ConnectSession::refuse(HTTPStatus status, std::string_view reason) {
  endStep();
  isEstablishing_ = false;
  asio::error_code ignored;
  origin_.close(ignored);
  // A read of the header, or a wait of watchClient, may still be outstanding.
  client_.cancel(ignored);
  environment_.log.refused(request_, status, reason);
  answer_ = refusalAnswer(status);
  // Limits the writing as well: the client might not read.
  limitStep(environment_.limits.linger, &ConnectSession::close);
  asio::async_write(client_, asio::buffer(answer_),
                    [self = shared_from_this()](asio::error_code error, std::size_t) {
                      if (error) {
                        self->close();
                        return;
                      }
                      self->linger();
                    });
}

// Closing while the client still sends would answer its bytes with a reset, which can discard the
// answer from the client's receive queue (RFC 9112, section 9.6).
void ConnectSession::linger() {
  asio::error_code ignored;
  client_.shutdown(Socket::shutdown_send, ignored);
  header_ = RequestHeader();
  discard();
}

void ConnectSession::discard() {
  const std::span<char> space = header_.space();
  client_.async_read_some(asio::buffer(space.data(), space.size()),
                          [self = shared_from_this()](asio::error_code error, std::size_t) {
                            if (error) {
                              self->close();
                              return;
                            }
                            self->discard();
                          });
}

void ConnectSession::close() {
  if (!client_.is_open()) {
    return;
  }
  endStep();
  isEstablishing_ = false;
  asio::error_code ignored;
  client_.close(ignored);
  origin_.close(ignored);
  environment_.ended();
}

void ConnectSession::limitStep(std::chrono::milliseconds limit, void (ConnectSession::*expired)()) {
  lookup_ = nullptr;
  deadline_.expires_after(limit);
  deadline_.async_wait([self = shared_from_this(), step = ++step_, expired](asio::error_code) {
    // Tests the step instead of the error: a timer that has already fired cannot be cancelled.
    if (step == self->step_) {
      (*self.*expired)();
    }
  });
}

void ConnectSession::endStep() {
  ++step_;
  lookup_ = nullptr;
  deadline_.cancel();
}

void ConnectSession::headerExpired() {
  if (header_.empty()) {
    refuse(HTTPStatus::requestTimeout, "no request came");
    return;
  }
  refuse(HTTPStatus::requestTimeout, "the request header did not end");
}

void ConnectSession::lookupExpired() {
  refuse(HTTPStatus::gatewayTimeout, "name lookup");
}

void ConnectSession::connectExpired() {
  connectExpired_ = true;
  asio::error_code ignored;
  origin_.close(ignored);
}

}  // namespace ostravel::companion
