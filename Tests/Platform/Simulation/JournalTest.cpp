#include "Platform/Simulation/Journal.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ostravel::simulation {
namespace {

TEST(JournalTest, KeepsLinesInOrder) {
  Journal journal;
  journal.add("flow 1", "open");
  journal.add("the test says something");
  EXPECT_EQ(journal.lines(), (std::vector<std::string>{"flow 1: open", "the test says something"}));
}

TEST(JournalTest, FindsLinesByTheirText) {
  Journal journal;
  journal.add("flow 1", "closeRead");
  journal.add("connection 1", "cancel");
  journal.add("flow 1", "closeWrite");
  EXPECT_EQ(journal.linesWith("flow 1: close"),
            (std::vector<std::string>{"flow 1: closeRead", "flow 1: closeWrite"}));
}

TEST(JournalTest, KnowsWhichLineCameFirst) {
  Journal journal;
  journal.add("a");
  journal.add("b");
  EXPECT_TRUE(journal.inOrder("a", "b"));
  EXPECT_FALSE(journal.inOrder("b", "a"));
}

TEST(JournalTest, MissingLinesHaveNoOrder) {
  Journal journal;
  journal.add("a");
  EXPECT_FALSE(journal.inOrder("a", "b"));
  EXPECT_FALSE(journal.inOrder("b", "a"));
}

TEST(JournalTest, KeepsNothingWhenItIsDisabled) {
  Journal journal;
  journal.setEnabled(false);
  journal.add("a");
  journal.add("flow 1", "open");
  EXPECT_TRUE(journal.lines().empty());
}

}  // namespace
}  // namespace ostravel::simulation
