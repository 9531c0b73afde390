#include "Companion/Monitor/Web/PrometheusText.h"

#include <array>
#include <charconv>

namespace ostravel::companion {
namespace {

std::string escaped(std::string_view value) {
  std::string text;
  for (const char character : value) {
    switch (character) {
      case '\\':
        text += "\\\\";
        break;
      case '"':
        text += "\\\"";
        break;
      case '\n':
        text += "\\n";
        break;
      default:
        text += character;
    }
  }
  return text;
}

std::string numberText(double value) {
  std::array<char, 32> digits{};
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  return {digits.data(), result.ptr};
}

}  // namespace

void PrometheusText::begin(std::string_view name, std::string_view type, std::string_view help) {
  name_ = name;
  text_ += "# HELP " + name_ + " ";
  text_ += help;
  text_ += "\n# TYPE " + name_ + " ";
  text_ += type;
  text_ += "\n";
}

void PrometheusText::sample(double value, const Labels& labels, std::string_view suffix) {
  text_ += name_;
  text_ += suffix;
  char separator = '{';
  for (const auto& [name, label] : labels) {
    text_ += separator;
    text_ += name;
    text_ += "=\"" + escaped(label) + "\"";
    separator = ',';
  }
  text_ += separator == ',' ? "} " : " ";
  text_ += numberText(value) + "\n";
}

void PrometheusText::single(std::string_view name, std::string_view type, std::string_view help,
                            double value) {
  begin(name, type, help);
  sample(value);
}

}  // namespace ostravel::companion
