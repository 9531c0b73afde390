#include "Extension/main/CheckReport.h"

#include <gtest/gtest.h>

namespace ostravel::linuxplatform {
namespace {

using Level = CheckReport::Level;

TEST(CheckReport, TheWorstFindingDecidesTheExitStatus) {
  CheckReport report;
  EXPECT_EQ(report.exitStatus(), 0);
  report.add(Level::ok, "a", "fine");
  EXPECT_EQ(report.exitStatus(), 0);
  report.add(Level::problem, "b", "broken");
  EXPECT_EQ(report.exitStatus(), 2);
  report.add(Level::warning, "c", "odd");
  EXPECT_EQ(report.exitStatus(), 2);
}

TEST(CheckReport, WarningsAloneGiveOne) {
  CheckReport report;
  report.add(Level::warning, "c", "odd");
  EXPECT_EQ(report.exitStatus(), 1);
}

TEST(CheckReport, AlignsItsColumns) {
  CheckReport report;
  report.add(Level::ok, "permissions", "all");
  report.add(Level::warning, "clock", "slow: set it");
  report.add(Level::warning, "clock", "odd: look");
  report.add(Level::problem, "kernel", "old");
  EXPECT_EQ(report.text(),
            "ok       permissions  all\n"
            "warning  clock        slow: set it\n"
            "warning  clock        odd: look\n"
            "problem  kernel       old\n"
            "\n"
            "1 problem, 2 warnings\n");
}

TEST(CheckReport, WritesForeignTextAsPrintable) {
  CheckReport report;
  report.add(Level::ok, "proxy", "a\x1b[31mb\nc");
  EXPECT_EQ(report.text(), "ok       proxy  a\\x1b[31mb\\nc\n\n0 problems, 0 warnings\n");
}

TEST(CheckReport, IsOneLineOfJSONForPrograms) {
  CheckReport report;
  report.add(Level::ok, "permissions", "all");
  report.add(Level::problem, "kernel", "old \x1b");
  EXPECT_EQ(report.json(), R"({"findings":[{"level":"ok","subject":"permissions","finding":"all"},)"
                           R"({"level":"problem","subject":"kernel","finding":"old \\x1b"}],)"
                           "\"problems\":1,\"warnings\":0}\n");
}

}  // namespace
}  // namespace ostravel::linuxplatform
