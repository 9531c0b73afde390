#include "Companion/Monitor/Web/WebServer.h"

#include <httplib.h>
#include <netdb.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Base/ParseNumber.h"
#include "Companion/Monitor/Web/PageFiles.h"
#include "Companion/Monitor/Web/RequestGuard.h"

namespace ostravel::companion {
namespace {

using namespace std::chrono_literals;

// Permits resources of this server only: no inline script, and no connection to another server.
constexpr const char* kContentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

// Unlike the library's own pool, it accepts a connection only if a thread is free for it, so that
// the others wait in the kernel's backlog and cost nothing.
class BoundedTasks final : public httplib::TaskQueue {
 public:
  explicit BoundedTasks(std::size_t threads) {
    for (std::size_t count = 0; count < threads; ++count) {
      threads_.emplace_back([this] { run(); });
    }
  }

  void enqueue(std::function<void()> task) override {
    std::unique_lock lock(mutex_);
    isFree_.wait(lock, [this] { return busy_ + tasks_.size() < threads_.size(); });
    tasks_.push_back(std::move(task));
    wakeUp_.notify_one();
  }

  void shutdown() override {
    {
      const std::lock_guard lock(mutex_);
      isEnding_ = true;
    }
    wakeUp_.notify_all();
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    while (true) {
      wakeUp_.wait(lock, [this] { return isEnding_ || !tasks_.empty(); });
      if (tasks_.empty()) {
        return;
      }
      const std::function<void()> task = std::move(tasks_.front());
      tasks_.pop_front();
      ++busy_;
      lock.unlock();
      task();
      lock.lock();
      --busy_;
      isFree_.notify_one();
    }
  }

  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::condition_variable isFree_;
  std::deque<std::function<void()>> tasks_;
  std::size_t busy_ = 0;
  bool isEnding_ = false;
  std::vector<std::thread> threads_;
};

// "TICK,FLOWS,DECISIONS", as in the updates. Empty for anything else.
std::optional<LiveState::Cursor> cursorOf(std::string_view text) {
  std::array<std::uint64_t, 3> numbers{};
  for (std::uint64_t& number : numbers) {
    const std::size_t comma = text.find(',');
    const std::optional<std::uint64_t> parsed = parseNumber<std::uint64_t>(text.substr(0, comma));
    if (!parsed) {
      return std::nullopt;
    }
    number = *parsed;
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
  }
  return LiveState::Cursor{numbers[0], numbers[1], numbers[2]};
}

std::string textOf(const LiveState::Cursor& cursor) {
  return std::to_string(cursor.tick) + "," + std::to_string(cursor.flows) + "," +
         std::to_string(cursor.decisions);
}

// The library has no function for this, but leaves its socket to classes that are derived.
class AdoptingServer final : public httplib::Server {
 public:
  void adopt(int listener) { svr_sock_ = listener; }
};

// The library would compress the text for a browser, as well as it can: with a long history that
// takes a processor for seconds, to save a copy within this machine.
void setPlainContent(httplib::Response& response, std::string text, const char* type) {
  const auto whole = std::make_shared<const std::string>(std::move(text));
  response.set_content_provider(
      whole->size(), type,
      [whole](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        return sink.write(whole->data() + offset, length);
      });
}

bool needsToken(std::string_view path) {
  return path == "/" || path == "/metrics" || path.starts_with("/api/");
}

}  // namespace

class WebServer::Server {
 public:
  Server(const LiveState& state, Options options)
      : state_(state), options_(std::move(options)), guard_(options_.listen.host, options_.token) {
    configure();
    addFiles();
    addData();
    bind();
    thread_ = std::thread([this] { http_.listen_after_bind(); });
    // Stopping it earlier would have no effect.
    while (!http_.is_running()) {
      std::this_thread::sleep_for(1ms);
    }
  }

  ~Server() {
    isEnding_ = true;
    http_.stop();
    thread_.join();
  }

  std::string url() const {
    return "http://" + toString(HostPort{options_.listen.host, port_}) +
           "/?token=" + guard_.token();
  }

 private:
  using Request = httplib::Request;
  using Response = httplib::Response;
  using Handled = httplib::Server::HandlerResponse;

  void configure() {
    http_.new_task_queue = [] { return new BoundedTasks(kMostConnections); };
    // Replaces the library's options, which would permit another program to share the port.
    http_.set_socket_options([](int socket) {
      const int yes = 1;
      ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    http_.set_keep_alive_timeout(2);
    http_.set_read_timeout(5s);
    http_.set_write_timeout(5s);
    constexpr std::size_t kNoBody = 1;
    http_.set_payload_max_length(kNoBody);
    http_.set_tcp_nodelay(true);
    http_.set_default_headers({{"Content-Security-Policy", kContentSecurityPolicy},
                               {"X-Content-Type-Options", "nosniff"},
                               {"Referrer-Policy", "no-referrer"},
                               {"Cross-Origin-Resource-Policy", "same-origin"},
                               {"Cross-Origin-Opener-Policy", "same-origin"},
                               {"Cache-Control", "no-store"}});
    http_.set_pre_routing_handler([this](const Request& request, Response& response) {
      const int status = guard_.refusal(
          {request.method, request.get_header_value("Host"), request.get_header_value("Origin"),
           request.get_header_value("Authorization"), request.get_param_value("token")},
          needsToken(request.path));
      if (status == 0) {
        return Handled::Unhandled;
      }
      response.status = status;
      response.set_content(status == 401 ? "The token is missing or wrong: open the address that "
                                           "ostravel-monitor has printed.\n"
                                         : "Not permitted.\n",
                           "text/plain; charset=utf-8");
      return Handled::Handled;
    });
  }

  void addFiles() {
    for (const PageFile& file : kPageFiles) {
      http_.Get(file.path, [&file](const Request&, Response& response) {
        response.set_content(reinterpret_cast<const char*>(file.bytes), file.size, file.type);
      });
    }
  }

  void addData() {
    http_.Get("/api/state", [this](const Request&, Response& response) {
      setPlainContent(response, state_.whole().json, "application/json");
    });
    http_.Get("/api/flow", [this](const Request& request, Response& response) {
      const std::string json = state_.flow(request.get_param_value("id"));
      response.status = json.empty() ? 404 : 200;
      response.set_content(json.empty() ? "{}" : json, "application/json");
    });
    http_.Get("/api/updates",
              [this](const Request& request, Response& response) { follow(request, response); });
    http_.Get("/metrics", [this](const Request&, Response& response) {
      response.set_content(state_.metrics(options_.hasApplicationMetrics),
                           "text/plain; version=0.0.4; charset=utf-8");
    });
  }

  void follow(const Request& request, Response& response) {
    // A browser that reconnects sends the last id that it has received.
    const std::string last = request.get_header_value("Last-Event-ID");
    std::optional<LiveState::Cursor> cursor =
        cursorOf(last.empty() ? request.get_param_value("after") : last);
    if (!cursor) {
      response.status = 400;
      return;
    }
    if (pages_.fetch_add(1) >= kMostPages) {
      --pages_;
      response.status = 503;
      return;
    }
    response.set_chunked_content_provider(
        "text/event-stream",
        [this, at = *cursor](std::size_t, httplib::DataSink& sink) mutable {
          return sendUpdate(at, sink);
        },
        [this](bool) { --pages_; });
  }

  // False ends the connection.
  bool sendUpdate(LiveState::Cursor& cursor, httplib::DataSink& sink) const {
    if (isEnding_) {
      return false;
    }
    std::string text = ":\n\n";
    if (const auto update = state_.changesSince(cursor, 1s)) {
      cursor = update->cursor;
      text = "id: " + textOf(cursor) + "\ndata: " + update->json + "\n\n";
    }
    return sink.is_writable() && sink.write(text.data(), text.size());
  }

  void bind() {
    if (options_.listener) {
      http_.adopt(*options_.listener);
      port_ = options_.listen.port;
      return;
    }
    const std::string where = toString(options_.listen);
    errno = 0;
    const int port =
        options_.listen.port == 0 ? http_.bind_to_any_port(options_.listen.host, AI_NUMERICHOST)
        : http_.bind_to_port(options_.listen.host, options_.listen.port, AI_NUMERICHOST)
            ? options_.listen.port
            : -1;
    if (port <= 0) {
      throw std::runtime_error(
          "cannot listen on " + where + ": " +
          (errno == 0 ? "not an address of this machine" : std::generic_category().message(errno)));
    }
    port_ = static_cast<std::uint16_t>(port);
  }

  const LiveState& state_;
  const Options options_;
  const RequestGuard guard_;
  AdoptingServer http_;
  std::uint16_t port_ = 0;
  std::atomic<std::size_t> pages_ = 0;
  std::atomic<bool> isEnding_ = false;
  std::thread thread_;
};

WebServer::WebServer(const LiveState& state, Options options)
    : server_(std::make_unique<Server>(state, std::move(options))) {}

WebServer::~WebServer() = default;

std::string WebServer::url() const {
  return server_->url();
}

}  // namespace ostravel::companion
