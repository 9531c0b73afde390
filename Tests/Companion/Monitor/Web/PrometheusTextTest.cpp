#include "Companion/Monitor/Web/PrometheusText.h"

#include <gtest/gtest.h>

#include <limits>

namespace ostravel::companion {
namespace {

TEST(PrometheusText, WritesHelpTypeAndSamples) {
  PrometheusText text;
  text.begin("a_total", "counter", "What it is.");
  text.sample(3.0);
  text.sample(0.25, {{"le", "0.5"}, {"outcome", "x"}}, "_bucket");
  text.single("b", "gauge", "Other.", 1e20);
  EXPECT_EQ(text.text(),
            "# HELP a_total What it is.\n# TYPE a_total counter\na_total 3\n"
            "a_total_bucket{le=\"0.5\",outcome=\"x\"} 0.25\n"
            "# HELP b Other.\n# TYPE b gauge\nb 1e+20\n");
}

TEST(PrometheusText, EscapesLabels) {
  PrometheusText text;
  text.begin("a", "gauge", "H.");
  text.sample(0.0, {{"application", "a\\b\"c\nd"}});
  EXPECT_TRUE(text.text().ends_with("a{application=\"a\\\\b\\\"c\\nd\"} 0\n"));
}

TEST(PrometheusText, WritesNaN) {
  PrometheusText text;
  text.single("a", "gauge", "H.", std::numeric_limits<double>::quiet_NaN());
  EXPECT_TRUE(text.text().ends_with("\na nan\n")) << text.text();
}

}  // namespace
}  // namespace ostravel::companion
