#include "Platform/Linux/Inspection/RemoteProcessTable.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/Inspection/InspectionMessage.h"
#include "Platform/Linux/Inspection/InspectionServer.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Tests/Platform/Linux/Inspection/LocalSockets.h"
#include "Tests/Platform/Linux/Support/ControlGroups.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using namespace std::chrono_literals;

// Asks an inspector in this process, and compares its answers with what can be read here. On a busy
// machine a question or a file system may be answered late.
class RemoteProcessTableTest : public ::testing::Test {
 protected:
  RemoteProcessTableTest() : inspector_([this] { server_.run([] {}); }) {}

  ~RemoteProcessTableTest() override {
    if (inspector_.joinable()) {
      stopInspector();
    }
  }

  void stopInspector() {
    server_.stop();
    inspector_.join();
  }

  static std::optional<Process> findSettled(const ProcessTable& processes, pid_t pid) {
    std::optional<Process> process;
    EXPECT_TRUE(waitUntil([&processes, &process, pid] {
      process = processes.find(pid);
      return process && process->isExecutableSettled;
    }));
    return process;
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path("socket");
  const FileDescriptor listener_ = listenOn(path_);
  InspectionServer server_{listener_.get(), std::nullopt};
  std::thread inspector_;
  LocalProcessTable local_;
  const std::unique_ptr<ProcessTable> remote_ =
      RemoteProcessTable::source(path_, [](const std::string& /*warning*/) {})();
};

TEST_F(RemoteProcessTableTest, DescribesAProcessAsItIs) {
  Helper helper(copyHelper(folder_, "pro\xffgram"));
  ASSERT_EQ(helper.ask("user 65534"), "done");
  auto local = findSettled(local_, helper.pid());
  auto remote = findSettled(*remote_, helper.pid());
  ASSERT_TRUE(local && remote);
  EXPECT_TRUE(remote->isExecutableGenuine);
  // Of each table.
  remote->mountGeneration = local->mountGeneration;
  EXPECT_EQ(*remote, *local);
  EXPECT_TRUE(
      waitUntil([&] { return remote_->stampOf(helper.pid()) == local_.stampOf(helper.pid()); }));
}

TEST_F(RemoteProcessTableTest, UsesTheRecordedExecutable) {
  const Helper helper;
  const FileIdentity recorded{1, 2};
  std::optional<Process> process;
  EXPECT_TRUE(waitUntil([&] {
    process = remote_->find(helper.pid(), recorded);
    return process && process->isExecutableSettled;
  }));
  EXPECT_EQ(process->executableFile, recorded);
  EXPECT_FALSE(process->isExecutableGenuine);
}

TEST_F(RemoteProcessTableTest, NoticesThatAProgramWasRemoved) {
  const std::string program = copyHelper(folder_, "program");
  const Helper helper(program);
  auto process = findSettled(*remote_, helper.pid());
  ASSERT_TRUE(process);
  EXPECT_TRUE(waitUntil([&] {
    EXPECT_FALSE(remote_->refreshExecutable(*process));
    return remote_->isAnswering();
  }));
  std::filesystem::remove(program);
  EXPECT_TRUE(waitUntil([&] {
    remote_->refreshExecutable(*process);
    return process->isExecutableDeleted && process->isExecutableSettled;
  }));
  EXPECT_EQ(process->executable, program);
  EXPECT_FALSE(process->isExecutableGenuine);
}

TEST_F(RemoteProcessTableTest, AnEndedProcessIsUnknown) {
  Helper helper;
  const auto process = findSettled(*remote_, helper.pid());
  ASSERT_TRUE(process);
  helper.kill();
  EXPECT_FALSE(remote_->stampOf(helper.pid()));
  EXPECT_FALSE(remote_->find(helper.pid()));
  EXPECT_FALSE(remote_->lifeOf(*process));
}

TEST_F(RemoteProcessTableTest, FindsTheHolderOfASocket) {
  const auto socket = makeSocket(AF_INET, SOCK_STREAM);
  struct stat status {};
  ASSERT_EQ(::fstat(socket.get(), &status), 0);
  const auto inode = static_cast<std::uint32_t>(status.st_ino);
  EXPECT_TRUE(
      waitUntil([&] { return remote_->holderOf(inode, ::getuid(), ::getpid()) == ::getpid(); }));
  // The first descriptors only.
  Helper with(OSTRAVEL_HELPER, [&socket] { return ::dup2(socket.get(), 3) == 3; });
  Helper without;
  EXPECT_TRUE(waitUntil([&] { return remote_->hasInherited(with.pid(), inode) == true; }));
  EXPECT_TRUE(waitUntil([&] { return remote_->hasInherited(without.pid(), inode) == false; }));
}

TEST_F(RemoteProcessTableTest, ASearchContinuesWhereItStopped) {
  const auto socket = makeSocket(AF_INET, SOCK_STREAM);
  struct stat status {};
  ASSERT_EQ(::fstat(socket.get(), &status), 0);
  HolderSearch search{.number = 1,
                      .inode = static_cast<std::uint32_t>(status.st_ino),
                      .first = {::getpid()},
                      .preferredUser = ::getuid()};
  using Result = HolderSearchStep::Result;
  // Each step examines at least one descriptor.
  HolderSearchStep step;
  EXPECT_TRUE(waitUntil([&] {
    step = remote_->proceed(search, std::nullopt, 0ms, 0ms);
    return step.result != Result::unfinished;
  }));
  EXPECT_EQ(step.result, Result::found);
  EXPECT_EQ(step.holder, ::getpid());
  search.number = 2;
  search.inode = 0;
  EXPECT_TRUE(waitUntil(
      [&] { return remote_->proceed(search, ::getpid(), 500ms, 2s).result == Result::absent; }));
}

TEST_F(RemoteProcessTableTest, TellsWhenAProcessHasEnded) {
  Helper helper;
  const auto process = findSettled(*remote_, helper.pid());
  ASSERT_TRUE(process);
  std::optional<ProcessLife> life;
  EXPECT_TRUE(waitUntil([&] { return (life = remote_->lifeOf(*process)).has_value(); }));
  // Without asking.
  stopInspector();
  EXPECT_FALSE(life->hasEnded());
  helper.kill();
  EXPECT_TRUE(life->hasEnded());
}

TEST_F(RemoteProcessTableTest, SeesTheSameView) {
  const auto local = local_.commonView();
  ASSERT_TRUE(local);
  std::optional<CommonView> remote;
  EXPECT_TRUE(waitUntil([&] { return (remote = remote_->commonView()).has_value(); }));
  EXPECT_EQ(remote->root, local->root);
  EXPECT_EQ(remote->mountNamespace, local->mountNamespace);
}

TEST_F(RemoteProcessTableTest, FindsTheWorkingFolder) {
  const Helper helper(OSTRAVEL_HELPER, [this] { return ::chdir(folder_.path().c_str()) == 0; });
  const auto process = findSettled(*remote_, helper.pid());
  ASSERT_TRUE(process);
  SearchAllowance allowance;
  FileLookup files(allowance);
  std::optional<FileIdentity> folder;
  const std::string path = std::filesystem::canonical(folder_.path()).string();
  EXPECT_TRUE(waitUntil([&] { return (folder = files.at(path, 0).file).has_value(); }));
  EXPECT_TRUE(waitUntil([&] { return remote_->workingFolderOf(*process, *folder) == path; }));
  EXPECT_FALSE(remote_->workingFolderOf(*process, FileIdentity{1, 2}));
}

TEST_F(RemoteProcessTableTest, ExaminesRegisteredPaths) {
  std::vector<std::optional<std::string>> problems;
  EXPECT_TRUE(waitUntil([&] {
    problems = remote_->problemsWith({OSTRAVEL_HELPER, "/nowhere/program"});
    return problems.size() == 2 && problems[1];
  }));
  EXPECT_FALSE(problems[0]);
  EXPECT_TRUE(problems[1]->starts_with("does not exist")) << *problems[1];
}

TEST_F(RemoteProcessTableTest, ALateProcessIsFoundTheNextTime) {
  const auto local = findSettled(local_, ::getpid());
  ASSERT_TRUE(local && local->executableFile);
  const std::string path = folder_.path("slow");
  const auto listener = listenOn(path);
  const auto slow = RemoteProcessTable::source(path, [](const auto&) {})();
  EXPECT_FALSE(slow->find(::getpid(), local->executableFile));
  const FileDescriptor connection(::accept(listener.get(), nullptr, nullptr));
  std::vector<char> bytes(kMaximumInspectionMessage);
  const auto size = ::recv(connection.get(), bytes.data(), bytes.size(), 0);
  ASSERT_GT(size, 0);
  const auto question = decodeInspectionQuestion({bytes.data(), static_cast<std::size_t>(size)});
  ASSERT_TRUE(question);
  const std::string answer =
      encode(InspectionAnswer{.number = question->number, .isPositive = true, .process = *local});
  ASSERT_GT(::send(connection.get(), answer.data(), answer.size(), 0), 0);
  EXPECT_EQ(slow->find(::getpid(), local->executableFile), local);
  // To be examined again, because the file may have been replaced.
  EXPECT_FALSE(slow->isAnswering());
}

TEST_F(RemoteProcessTableTest, WithoutAnInspectorNothingIsKnown) {
  auto process = findSettled(*remote_, ::getpid());
  ASSERT_TRUE(process);
  const Process before = *process;
  const auto lone = RemoteProcessTable::source(folder_.path("nowhere"), [](const auto&) {})();
  EXPECT_FALSE(lone->find(::getpid()));
  EXPECT_FALSE(lone->isAnswering());
  EXPECT_FALSE(lone->refreshExecutable(*process));
  EXPECT_FALSE(lone->refreshControlGroup(*process));
  EXPECT_EQ(*process, before);
  // It may be the local proxy's.
  EXPECT_EQ(lone->hasInherited(::getpid(), 1), std::nullopt);
  EXPECT_EQ(lone->proceed({}, std::nullopt, 1ms, 1ms).result, HolderSearchStep::Result::unfinished);
  EXPECT_FALSE(lone->holderOf(1, 0));
  EXPECT_FALSE(lone->commonView());
  EXPECT_FALSE(lone->lifeOf(*process));
  EXPECT_EQ(lone->problemsWith({"/nowhere"}).at(0), std::nullopt);
}

TEST_F(RemoteProcessTableTest, FollowsAProcessIntoAnotherControlGroup) {
  const ControlGroups groups;
  const Helper helper;
  groups.move(helper.pid(), "/first.scope");
  auto process = findSettled(*remote_, helper.pid());
  ASSERT_TRUE(process);
  EXPECT_FALSE(remote_->refreshControlGroup(*process));
  groups.move(helper.pid(), "/system.slice/second.service");
  EXPECT_TRUE(waitUntil([&] { return remote_->refreshControlGroup(*process); }));
  // The inspector sees the whole hierarchy.
  EXPECT_TRUE(process->serviceGroup.ends_with("/system.slice/second.service"))
      << process->serviceGroup;
}

TEST_F(RemoteProcessTableTest, AnOrdinaryProgramIsNoAppImage) {
  auto process = findSettled(*remote_, ::getpid());
  ASSERT_TRUE(process);
  EXPECT_FALSE(remote_->appImageOf(*process));
  process->executable = "/tmp/.mount_other/program";
  EXPECT_FALSE(remote_->appImageOf(*process));
}

}  // namespace
}  // namespace ostravel::linuxplatform
