#include "Base/CalendarText.h"

#include <cstddef>

namespace ostravel {

void appendPadded(std::string& text, unsigned number, unsigned digits) {
  constexpr unsigned kBase = 10;
  text.append(digits, '0');
  for (std::size_t place = text.size(); number != 0; number /= kBase) {
    text[--place] = static_cast<char>('0' + number % kBase);
  }
}

void appendCalendarText(std::string& text, std::chrono::sys_seconds moment) {
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

}  // namespace ostravel
