#include "Companion/Control/TopText.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "Base/UTF8.h"
#include "Companion/Control/AnswerText.h"

namespace ostravel::companion {
namespace {

constexpr std::array<std::string_view, 9> kBlocks{" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<std::string_view, 9> kLetters{" ", ".", ".", ":", ":", "-", "=", "#", "#"};

// Every code point is one column wide: identifiers are ASCII.
std::size_t columnsOf(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(
      text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U; }));
}

std::string cut(std::string_view text, std::size_t columns) {
  std::string result;
  for (std::size_t column = 0; column < columns && !text.empty(); ++column) {
    const CodePoint next = firstCodePoint(text);
    result += text.substr(0, next.size);
    text.remove_prefix(next.size);
  }
  return result;
}

// Drops the beginning, because the end of a path is more telling.
std::string cutFront(const std::string& text, std::size_t columns) {
  return text.size() <= columns ? text : "<" + text.substr(text.size() - columns + 1);
}

std::string left(const std::string& text, std::size_t columns) {
  const std::size_t used = columnsOf(text);
  return used >= columns ? cut(text, columns) : text + std::string(columns - used, ' ');
}

std::string right(const std::string& text, std::size_t columns) {
  const std::size_t used = columnsOf(text);
  return used >= columns ? cut(text, columns) : std::string(columns - used, ' ') + text;
}

constexpr std::size_t kLabel = 10;
constexpr std::size_t kValue = 12;
constexpr std::size_t kColumn = 9;

template <typename Member>
std::vector<double> latest(const TopHistory& history, std::size_t count, Member member) {
  std::vector<double> values;
  const auto& samples = history.samples();
  for (std::size_t index = samples.size() - std::min(samples.size(), count); index < samples.size();
       ++index) {
    values.push_back(samples[index].*member);
  }
  return values;
}

std::string tableLine(const TopHistory::Application& application, std::size_t width) {
  const std::size_t columns = 6 * kColumn;
  std::string line = right(std::to_string(application.tunnels), kColumn) +
                     right(std::to_string(application.pending), kColumn) +
                     right(bytesText(application.sent), kColumn) +
                     right(bytesText(application.received), kColumn) +
                     right(application.handshakeMilliseconds > 0
                               ? microsecondsText(application.handshakeMilliseconds * 1000)
                               : std::string("-"),
                           kColumn) +
                     right(std::to_string(application.failures), kColumn);
  const std::size_t room = width > columns + kLabel ? width - columns : kLabel;
  return left(cutFront(application.name, room), room) + line;
}

std::string tableHead(std::size_t width) {
  const std::size_t columns = 6 * kColumn;
  const std::size_t room = width > columns + kLabel ? width - columns : kLabel;
  std::string head = left("APPLICATION", room);
  for (const auto* name : {"TUNNELS", "PENDING", "SENT", "RECEIVED", "HANDSHK", "FAILED"}) {
    head += right(name, kColumn);
  }
  return head;
}

}  // namespace

std::string TopText::graph(const std::vector<double>& values) const {
  const auto& bars = hasBlocks_ ? kBlocks : kLetters;
  const double largest = values.empty() ? 0 : std::ranges::max(values);
  std::string text;
  for (const double value : values) {
    std::size_t bar = 0;
    if (value > 0 && largest > 0) {
      const double part = value / largest * static_cast<double>(bars.size() - 1);
      bar = std::clamp<std::size_t>(static_cast<std::size_t>(part + 0.5), 1, bars.size() - 1);
    }
    text += bars[bar];
  }
  return text;
}

std::vector<std::string> TopText::lines(const TopHistory& history, std::size_t width,
                                        std::size_t height) const {
  std::vector<std::string> lines{history.message()};
  const auto graphWidth = width > kLabel + kValue + 1 ? width - kLabel - kValue - 1 : 1;
  const auto add = [&](const std::string& label, auto member, const auto& text) {
    const auto values = latest(history, graphWidth, member);
    lines.push_back(left(label, kLabel) + right(values.empty() ? "" : text(values.back()), kValue) +
                    " " + graph(values));
  };
  const auto number = [](double value) { return std::to_string(static_cast<long>(value)); };
  add("gate", &TopHistory::Sample::gate,
      [](double value) { return std::string(value > 0 ? "open" : "closed"); });
  add("pending", &TopHistory::Sample::pending, number);
  add("tunnels", &TopHistory::Sample::tunnels, number);
  add("bytes", &TopHistory::Sample::bytesPerSecond,
      [](double value) { return bytesText(value) + "/s"; });
  add("handshake", &TopHistory::Sample::handshakeMicroseconds,
      [](double value) { return value > 0 ? microsecondsText(value) : std::string("-"); });
  lines.emplace_back();
  lines.push_back(tableHead(width));
  for (const auto& application : history.applications()) {
    lines.push_back(tableLine(application, width));
  }
  lines.resize(std::min(lines.size(), height));
  for (std::string& line : lines) {
    line = cut(line, width);
  }
  return lines;
}

}  // namespace ostravel::companion
