#include "Platform/Linux/Services/JournalLog.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Linux/Services/LogCatalogue.h"
#include "Platform/Linux/Services/LogLine.h"
#include "Tests/Platform/Linux/Support/ReceivingJournal.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using ostravel::testing::ReceivingJournal;
using ostravel::testing::withPrivateRun;
using std::chrono::steady_clock;

std::shared_ptr<BackgroundWriter> makeWriter() {
  return std::make_shared<BackgroundWriter>(std::make_unique<JournalLog::Output>("sub", "cat"),
                                            BackgroundWriter::kUsualCapacity, "journal");
}

// Fills the journal's socket.
void stall() {
  JournalLog::Output output("sub", "cat");
  while (output.writeInCrash("MESSAGE=filling\n\n") > 0) {
  }
}

constexpr std::string_view kReport = "OstravelProxy: Log lines dropped count=";

std::string messageOf(const std::set<std::string>& fields) {
  constexpr std::string_view kName = "MESSAGE=";
  const auto message = fields.lower_bound(std::string(kName));
  return message != fields.end() && message->starts_with(kName) ? message->substr(kName.size())
                                                                : std::string();
}

bool flush(BackgroundWriter& writer) {
  return writer.flush(steady_clock::now() + 60s);
}

TEST(JournalLogTest, SendsEveryLevelWithItsFields) {
  withPrivateRun([] {
    const ReceivingJournal journal;
    const auto writer = makeWriter();
    JournalLog log(writer, "OstravelNetworkExtension", "OstravelProxy");
    const auto expected = [](const std::string& message, const std::string& priority) {
      return std::set<std::string>{
          "MESSAGE=" + message, "PRIORITY=" + priority, "SYSLOG_IDENTIFIER=ostravel",
          "OSTRAVEL_SUBSYSTEM=OstravelNetworkExtension", "OSTRAVEL_CATEGORY=OstravelProxy"};
    };
    log.debug("OstravelProxy: a %{public}s", {"b"});
    ASSERT_TRUE(flush(*writer));
    EXPECT_EQ(journal.nextEntry(), expected("OstravelProxy: a b", "7"));
    log.info("c");
    ASSERT_TRUE(flush(*writer));
    EXPECT_EQ(journal.nextEntry(), expected("c", "6"));
    log.standard("d");
    ASSERT_TRUE(flush(*writer));
    EXPECT_EQ(journal.nextEntry(), expected("d", "5"));
    log.error("e %{public}d", {std::int64_t{1}});
    ASSERT_TRUE(flush(*writer));
    EXPECT_EQ(journal.nextEntry(), expected("e 1", "3"));
  });
}

TEST(JournalLogTest, SendsTheFlowAndApplicationOfALine) {
  withPrivateRun([] {
    const ReceivingJournal journal;
    const auto writer = makeWriter();
    JournalLog log(writer, "sub", "cat");
    constexpr std::string_view kFormat = "OstravelProxy: CONNECT handshake timed out";
    log.error(kFormat, {},
              {.flowID = "FLOW", .application = "/usr/bin/a\nb", .code = "extension.timed_out"});
    ASSERT_TRUE(flush(*writer));
    EXPECT_EQ(journal.nextEntry(),
              (std::set<std::string>{"MESSAGE=" + std::string(kFormat), "PRIORITY=3",
                                     "MESSAGE_ID=" + std::string(messageIDOf(kFormat)),
                                     "OSTRAVEL_FLOW_ID=FLOW", "OSTRAVEL_CODE=extension.timed_out",
                                     "APPLICATION=/usr/bin/a\\nb", "SYSLOG_IDENTIFIER=ostravel",
                                     "OSTRAVEL_SUBSYSTEM=sub", "OSTRAVEL_CATEGORY=cat"}));
  });
}

TEST(JournalLogTest, LeavesOutLessImportantLines) {
  withPrivateRun([] {
    const ReceivingJournal journal;
    const auto writer = makeWriter();
    JournalLog log(writer, "sub", "cat", platform::LogLevel::standard);
    log.debug("a");
    log.info("b");
    log.standard("c");
    log.error("d");
    ASSERT_TRUE(flush(*writer));
    EXPECT_EQ(messageOf(journal.nextEntry()), "c");
    EXPECT_EQ(messageOf(journal.nextEntry()), "d");
    EXPECT_TRUE(journal.nextEntry().empty());
  });
}

TEST(JournalLogTest, ALineBreakStartsNeitherFieldNorLine) {
  withPrivateRun([] {
    const ReceivingJournal journal;
    const auto writer = makeWriter();
    JournalLog log(writer, "sub\nPRIORITY=0", "cat\nPRIORITY=0");
    log.info("OstravelProxy: %{public}s", {"one\nPRIORITY=0"});
    ASSERT_TRUE(flush(*writer));
    const auto fields = journal.nextEntry();
    EXPECT_EQ(fields.size(), 5U);
    EXPECT_TRUE(fields.contains("MESSAGE=OstravelProxy: one\\nPRIORITY=0"));
    EXPECT_TRUE(fields.contains("OSTRAVEL_SUBSYSTEM=sub\\nPRIORITY=0"));
    EXPECT_TRUE(fields.contains("OSTRAVEL_CATEGORY=cat\\nPRIORITY=0"));
    EXPECT_TRUE(fields.contains("PRIORITY=6"));
  });
}

TEST(JournalLogTest, SilentlyLosesLinesWithoutAJournal) {
  withPrivateRun([] {
    const auto writer = makeWriter();
    JournalLog log(writer, "sub", "cat");
    errno = EDOM;
    log.error("lost");
    EXPECT_EQ(errno, EDOM);
    EXPECT_TRUE(flush(*writer));
  });
}

TEST(JournalLogTest, AStalledJournalDoesNotBlockTheCaller) {
  withPrivateRun([] {
    const ReceivingJournal journal;
    stall();
    const auto writer = makeWriter();
    JournalLog log(writer, "sub", "cat");
    // Far more than the writer holds.
    constexpr int kLines = 100'000;
    for (int line = 0; line < kLines; ++line) {
      log.info("OstravelProxy: line %{public}d", {std::int64_t{line}});
    }
    EXPECT_FALSE(writer->flush(steady_clock::now() + 1ms));

    int received = 0;
    std::vector<std::set<std::string>> reports;
    const auto receive = [&] {
      for (auto fields = journal.nextEntry(); !fields.empty(); fields = journal.nextEntry()) {
        const std::string message = messageOf(fields);
        received += message.starts_with("OstravelProxy: line ") ? 1 : 0;
        if (message.starts_with(kReport)) {
          reports.push_back(fields);
        }
      }
    };
    while (!writer->flush(steady_clock::now() + 1ms)) {
      receive();
    }
    receive();
    // Two if the writer took its first buffer only after it was full.
    ASSERT_TRUE(reports.size() == 1 || reports.size() == 2) << reports.size();
    for (const auto& report : reports) {
      received += std::stoi(messageOf(report).substr(kReport.size()));
    }
    EXPECT_EQ(received, kLines);
    EXPECT_TRUE(reports[0].contains("PRIORITY=3"));
    EXPECT_TRUE(reports[0].contains("OSTRAVEL_SUBSYSTEM=sub"));
  });
}

TEST(JournalLogTest, DestructionDoesNotWaitForAStalledJournal) {
  withPrivateRun([] {
    const ReceivingJournal journal;
    stall();
    auto writer = makeWriter();
    JournalLog(writer, "sub", "cat").info("x");
    writer.reset();
  });
}

TEST(JournalLogTest, ACrashSendsARecordWithoutTheLibrary) {
  withPrivateRun([] {
    const ReceivingJournal journal;
    JournalLog::Output output("sub", "cat");
    const std::string record = output.dropped(7);
    EXPECT_EQ(output.writeInCrash(record + record), record.size());
    const auto fields = journal.nextEntry();
    EXPECT_EQ(fields, (std::set<std::string>{
                          "MESSAGE=OstravelProxy: Log lines dropped count=7", "PRIORITY=3",
                          "MESSAGE_ID=" + std::string(messageIDOf(kDroppedLinesFormat)),
                          "SYSLOG_IDENTIFIER=ostravel", "OSTRAVEL_SUBSYSTEM=sub",
                          "OSTRAVEL_CATEGORY=cat"}));
    EXPECT_TRUE(journal.nextEntry().empty());
  });
}

TEST(JournalLogTest, ACrashDoesNotWaitForTheJournal) {
  withPrivateRun([] {
    JournalLog::Output output("sub", "cat");
    const std::string record = output.dropped(7);
    EXPECT_EQ(output.writeInCrash(record), 0U);
    const ReceivingJournal journal;
    while (output.writeInCrash(record) > 0) {
    }
  });
}

}  // namespace
}  // namespace ostravel::linuxplatform
