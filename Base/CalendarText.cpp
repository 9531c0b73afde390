#include "Base/CalendarText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <limits>

namespace ostravel {

void appendPadded(std::string& text, unsigned number, unsigned digits) {
  std::array<char, std::numeric_limits<unsigned>::digits10 + 1> significant{};
  char* const begin = significant.data();
  const auto* const end = std::to_chars(begin, begin + significant.size(), number).ptr;
  const auto size = static_cast<std::size_t>(end - begin);
  text.append(digits - std::min<std::size_t>(digits, size), '0').append(begin, size);
}

namespace {

void appendNewCalendarText(std::string& text, std::chrono::sys_seconds moment) {
  constexpr unsigned kYearDigits = 4;
  const auto midnight = std::chrono::floor<std::chrono::days>(moment);
  const std::chrono::year_month_day date{midnight};
  const std::chrono::hh_mm_ss time{moment - midnight};
  const auto append = [&text](char separator, auto part) {
    text += separator;
    appendPadded(text, static_cast<unsigned>(part), 2);
  };
  appendPadded(text, static_cast<unsigned>(int{date.year()}), kYearDigits);
  append('-', unsigned{date.month()});
  append('-', unsigned{date.day()});
  append('T', time.hours().count());
  append(':', time.minutes().count());
  append(':', time.seconds().count());
}

// The last text of a thread, which usually asks for one second many times.
struct Latest {
  std::chrono::sys_seconds moment{};
  // 0 if there is no text, or it is too long.
  std::size_t size = 0;
  std::array<char, 19> text{};
};
thread_local constinit Latest latest;

}  // namespace

void appendCalendarText(std::string& text, std::chrono::sys_seconds moment) {
  if (latest.size > 0 && latest.moment == moment) {
    text.append(latest.text.data(), latest.size);
    return;
  }
  const std::size_t begin = text.size();
  appendNewCalendarText(text, moment);
  const std::size_t size = text.size() - begin;
  if (size <= latest.text.size()) {
    text.copy(latest.text.data(), size, begin);
    latest.moment = moment;
    latest.size = size;
  }
}

}  // namespace ostravel
