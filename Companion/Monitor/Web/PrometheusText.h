#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace ostravel::companion {

// Builds a page in Prometheus' text format, version 0.0.4.
class PrometheusText {
 public:
  using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

  // Begins a metric, whose samples follow. type: "counter", "gauge", "histogram" or "summary".
  void begin(std::string_view name, std::string_view type, std::string_view help);

  // suffix: of the metric's name, such as "_sum". The value of a label may be any text.
  void sample(double value, const Labels& labels = {}, std::string_view suffix = "");

  // Adds a metric with one sample.
  void single(std::string_view name, std::string_view type, std::string_view help, double value);

  const std::string& text() const { return text_; }

 private:
  std::string name_;
  std::string text_;
};

}  // namespace ostravel::companion
