#include "Companion/Control/TopScreen.h"

#include <langinfo.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <clocale>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <variant>

#include "Companion/Control/ControlOutput.h"
#include "Companion/Control/TopHistory.h"
#include "Companion/Control/TopText.h"

// Included last, and without its macros, whose names are ordinary words.
#define NCURSES_NOMACROS
#include <curses.h>

namespace ostravel::companion {
namespace {

using namespace std::chrono_literals;
using Failure = ControlClient::Failure;

constexpr auto kRefresh = 1s;
constexpr int kEscape = 27;

// Puts the terminal into screen mode for the lifetime of the object.
class Curses {
 public:
  Curses() : screen_(::newterm(nullptr, stdout, stdin)) {
    if (screen_ != nullptr) {
      ::cbreak();
      ::noecho();
      ::curs_set(0);
      ::keypad(stdscr, TRUE);
    }
  }
  Curses(const Curses&) = delete;
  Curses& operator=(const Curses&) = delete;
  ~Curses() {
    if (screen_ != nullptr) {
      ::endwin();
      ::delscreen(screen_);
    }
  }

  bool isOpen() const { return screen_ != nullptr; }

 private:
  SCREEN* screen_;
};

// Makes all requests that one refresh needs.
std::optional<Failure> askAll(const ControlClient& client, TopHistory& history) {
  constexpr std::array kNames{"status", "tunnels", "decisions"};
  // 0: the request has no limit.
  constexpr std::array<json_int_t, kNames.size()> kLimits{0, 10'000, 1000};
  std::array<JSONHandle, kNames.size()> results;
  for (std::size_t index = 0; index < kNames.size(); ++index) {
    JSONHandle request(json_object());
    json_object_set_new(request.get(), "request", json_string(kNames[index]));
    if (kLimits[index] > 0) {
      json_object_set_new(request.get(), "limit", json_integer(kLimits[index]));
    }
    auto answer = client.ask(std::move(request), answerDeadline());
    if (auto* const failure = std::get_if<Failure>(&answer)) {
      return std::move(*failure);
    }
    results[index] = std::move(std::get<JSONHandle>(answer));
  }
  history.add(results[0].get(), results[1].get(), results[2].get());
  return std::nullopt;
}

void draw(const TopHistory& history, const TopText& text) {
  int height = 0;
  int width = 0;
  getmaxyx(stdscr, height, width);
  ::erase();
  int row = 0;
  for (const auto& line :
       text.lines(history, static_cast<std::size_t>(width), static_cast<std::size_t>(height))) {
    const attr_t look = row == 0 ? (history.isProxying() ? A_BOLD : A_REVERSE) : A_NORMAL;
    ::attrset(static_cast<int>(look));
    ::mvaddnstr(row++, 0, line.c_str(), -1);
  }
  ::refresh();
}

bool isUTF8Terminal() {
  std::setlocale(LC_ALL, "");
  return std::string_view(::nl_langinfo(CODESET)) == "UTF-8";
}

}  // namespace

int TopScreen::print() const {
  TopHistory history;
  while (true) {
    if (const auto failure = askAll(client_, history)) {
      return report(*failure);
    }
    if (!printLine(jsonLine(history.latest().get()))) {
      return kExitDone;
    }
    std::this_thread::sleep_for(kRefresh);
  }
}

int TopScreen::run() const {
  TopHistory history;
  // Before the terminal enters screen mode, so that a failure is shown as a line.
  if (const auto failure = askAll(client_, history)) {
    return report(*failure);
  }
  const TopText text(isUTF8Terminal());
  const Curses curses;
  if (!curses.isOpen()) {
    return report({"unavailable", "the terminal cannot show a screen (TERM)"});
  }
  auto next = std::chrono::steady_clock::now() + kRefresh;
  while (true) {
    draw(history, text);
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(next - std::chrono::steady_clock::now());
    ::timeout(static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0)));
    const int key = ::getch();
    if (key == 'q' || key == 'Q' || key == kEscape) {
      return kExitDone;
    }
    if (std::chrono::steady_clock::now() < next) {
      continue;
    }
    next = std::chrono::steady_clock::now() + kRefresh;
    if (const auto failure = askAll(client_, history)) {
      ::endwin();
      return report(*failure);
    }
  }
}

}  // namespace ostravel::companion
