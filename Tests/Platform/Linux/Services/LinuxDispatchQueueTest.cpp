#include "Platform/Linux/Services/LinuxDispatchQueue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using platform::DispatchQueue;
using platform::DispatchQueueKind;

class LinuxDispatchQueueTest : public ::testing::Test {
 protected:
  std::shared_ptr<DispatchQueue> make(DispatchQueueKind kind) {
    return std::make_shared<LinuxDispatchQueue>(pool_, "com.ostravel.test", kind);
  }

  void drain() { ASSERT_TRUE(pool_.drain(std::chrono::steady_clock::now() + 60s)); }

  WorkerPool pool_;
  const std::shared_ptr<DispatchQueue> serial_ = make(DispatchQueueKind::serial);
  const std::shared_ptr<DispatchQueue> concurrent_ = make(DispatchQueueKind::concurrent);
};

TEST_F(LinuxDispatchQueueTest, HasItsLabel) {
  EXPECT_EQ(serial_->label(), "com.ostravel.test");
}

// What a queue needs for items is made for the first one.
TEST_F(LinuxDispatchQueueTest, SeveralThreadsMaySubmitTheFirstItem) {
  for (int round = 0; round < 100; ++round) {
    const auto queue = make(DispatchQueueKind::serial);
    int count = 0;
    std::vector<std::jthread> threads;
    for (int number = 0; number < 3; ++number) {
      threads.emplace_back([&queue, &count] { queue->sync([&count] { ++count; }); });
    }
    threads.clear();
    EXPECT_EQ(count, 3);
  }
}

TEST_F(LinuxDispatchQueueTest, SerialItemsRunInOrder) {
  std::vector<int> order;
  for (int i = 0; i < 10000; ++i) {
    serial_->async([&order, i] { order.push_back(i); });
  }
  drain();
  ASSERT_EQ(order.size(), 10000U);
  for (int i = 0; i < 10000; ++i) {
    ASSERT_EQ(order[static_cast<std::size_t>(i)], i);
  }
}

TEST_F(LinuxDispatchQueueTest, AsyncReturnsBeforeTheItemHasRun) {
  std::latch release(1);
  bool hasRun = false;
  serial_->async([&] {
    release.wait();
    hasRun = true;
  });
  release.count_down();
  drain();
  EXPECT_TRUE(hasRun);
}

TEST_F(LinuxDispatchQueueTest, AnAsyncItemRunsOnAnotherThread) {
  std::promise<std::thread::id> thread;
  serial_->async([&thread] { thread.set_value(std::this_thread::get_id()); });
  EXPECT_NE(thread.get_future().get(), std::this_thread::get_id());
  drain();
}

TEST_F(LinuxDispatchQueueTest, ASyncItemOfAnIdleQueueRunsOnTheCallersThread) {
  for (const auto& queue : {serial_, concurrent_}) {
    std::thread::id thread;
    queue->sync([&thread] { thread = std::this_thread::get_id(); });
    EXPECT_EQ(thread, std::this_thread::get_id());
    thread = {};
    queue->syncBarrier([&thread] { thread = std::this_thread::get_id(); });
    EXPECT_EQ(thread, std::this_thread::get_id());
  }
}

TEST_F(LinuxDispatchQueueTest, ASyncItemIsNotCopied) {
  struct Uncopyable {
    Uncopyable() = default;
    Uncopyable(const Uncopyable&) = delete;
    Uncopyable& operator=(const Uncopyable&) = delete;
    void operator()() { ++calls; }
    int calls = 0;
  } item;
  concurrent_->sync(item);
  concurrent_->syncBarrier(item);
  EXPECT_EQ(item.calls, 2);
}

TEST_F(LinuxDispatchQueueTest, ASyncItemOfASerialQueueWaitsForEarlierItems) {
  std::vector<int> order;
  for (int i = 0; i < 100; ++i) {
    serial_->async([&order, i] { order.push_back(i); });
  }
  serial_->sync([&order] { order.push_back(100); });
  ASSERT_EQ(order.size(), 101U);
  EXPECT_EQ(order.back(), 100);
}

TEST_F(LinuxDispatchQueueTest, ASyncItemOfASerialQueueExcludesOthers) {
  std::latch isInside(1);
  std::latch release(1);
  std::vector<int> order;
  std::thread thread([&] {
    serial_->sync([&] {
      isInside.count_down();
      release.wait();
      order.push_back(1);
    });
  });
  isInside.wait();
  serial_->async([&order] { order.push_back(2); });
  release.count_down();
  serial_->sync([&order] { order.push_back(3); });
  thread.join();
  EXPECT_EQ(order, (std::vector{1, 2, 3}));
}

TEST_F(LinuxDispatchQueueTest, BarriersOnASerialQueueAreOrdinaryItems) {
  std::vector<int> order;
  serial_->async([&order] { order.push_back(1); });
  serial_->asyncBarrier([&order] { order.push_back(2); });
  serial_->async([&order] { order.push_back(3); });
  serial_->syncBarrier([&order] { order.push_back(4); });
  EXPECT_EQ(order, (std::vector{1, 2, 3, 4}));
}

TEST_F(LinuxDispatchQueueTest, ConcurrentItemsRunInParallel) {
  std::latch together(3);
  concurrent_->async([&together] { together.arrive_and_wait(); });
  concurrent_->async([&together] { together.arrive_and_wait(); });
  concurrent_->sync([&together] { together.arrive_and_wait(); });
  drain();
}

TEST_F(LinuxDispatchQueueTest, ABarrierWaitsForAllBeforeItAndRunsAlone) {
  std::latch release(1);
  std::atomic<int> before = 0;
  std::atomic<bool> barrierRuns = false;
  int seenBefore = 0;
  bool overlaps = false;
  for (int i = 0; i < 3; ++i) {
    concurrent_->async([&] {
      release.wait();
      ++before;
    });
  }
  concurrent_->asyncBarrier([&] {
    barrierRuns = true;
    seenBefore = before;
    std::this_thread::yield();
    barrierRuns = false;
  });
  for (int i = 0; i < 3; ++i) {
    concurrent_->async([&] { overlaps = overlaps || barrierRuns; });
    concurrent_->asyncBarrier([] {});
  }
  release.count_down();
  drain();
  EXPECT_EQ(seenBefore, 3);
  EXPECT_FALSE(overlaps);
}

TEST_F(LinuxDispatchQueueTest, ASyncItemDoesNotOvertakeAWaitingBarrier) {
  std::latch release(1);
  std::latch isInside(1);
  concurrent_->async([&] {
    isInside.count_down();
    release.wait();
  });
  isInside.wait();
  bool barrierRan = false;
  concurrent_->asyncBarrier([&barrierRan] { barrierRan = true; });
  bool seen = false;
  std::thread reader([&] { concurrent_->sync([&] { seen = barrierRan; }); });
  release.count_down();
  reader.join();
  EXPECT_TRUE(seen);
}

TEST_F(LinuxDispatchQueueTest, WaitingItemsOfOneKindAreAdmittedTogether) {
  std::latch release(1);
  std::latch isInside(1);
  concurrent_->asyncBarrier([&] {
    isInside.count_down();
    release.wait();
  });
  isInside.wait();
  // All of them have to be inside at once.
  std::latch together(3);
  concurrent_->async([&together] { together.arrive_and_wait(); });
  concurrent_->async([&together] { together.arrive_and_wait(); });
  std::thread reader([&] { concurrent_->sync([&together] { together.arrive_and_wait(); }); });
  release.count_down();
  reader.join();
  drain();
}

TEST_F(LinuxDispatchQueueTest, ABarrierIsNotStarvedByAStreamOfSyncItems) {
  std::atomic<bool> ends = false;
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      while (!ends) {
        concurrent_->sync([] {});
      }
    });
  }
  // The readers end only through the barriers.
  for (int i = 0; i < 200; ++i) {
    concurrent_->asyncBarrier([] {});
    drain();
  }
  concurrent_->asyncBarrier([&ends] { ends = true; });
  for (std::thread& reader : readers) {
    reader.join();
  }
  drain();
}

TEST_F(LinuxDispatchQueueTest, ABarrierRunsWhileEveryPoolThreadWaitsForIt) {
  std::latch release(1);
  std::latch isInside(1);
  std::thread reader([&] {
    concurrent_->sync([&] {
      isInside.count_down();
      release.wait();
    });
  });
  isInside.wait();
  std::atomic<int> barriers = 0;
  std::atomic<int> items = 0;
  std::atomic<int> syncs = 0;
  concurrent_->asyncBarrier([&barriers] { ++barriers; });
  for (int i = 0; i < 10; ++i) {
    concurrent_->async([&items] { ++items; });
  }
  concurrent_->asyncBarrier([&barriers] { ++barriers; });
  std::latch allAreTaken(WorkerPool::kThreads);
  std::vector<std::shared_ptr<DispatchQueue>> others;
  for (std::size_t i = 0; i < WorkerPool::kThreads; ++i) {
    others.push_back(make(DispatchQueueKind::serial));
    others.back()->async([&] {
      allAreTaken.arrive_and_wait();
      concurrent_->sync([&] {
        if (barriers == 2 && items == 10) {
          ++syncs;
        }
      });
    });
  }
  allAreTaken.wait();
  release.count_down();
  drain();
  reader.join();
  EXPECT_EQ(syncs, static_cast<int>(WorkerPool::kThreads));
}

TEST_F(LinuxDispatchQueueTest, ASerialQueueWorksWhileEveryPoolThreadWaitsForIt) {
  // The first one occupies the queue; the others wait for items that no pool thread is free to run.
  for (int round = 0; round < 100; ++round) {
    std::latch allAreTaken(WorkerPool::kThreads);
    std::atomic<int> ran = 0;
    std::vector<std::shared_ptr<DispatchQueue>> others;
    for (std::size_t i = 0; i < WorkerPool::kThreads; ++i) {
      others.push_back(make(DispatchQueueKind::serial));
      others.back()->async([&] {
        allAreTaken.arrive_and_wait();
        serial_->async([&ran] { ++ran; });
        serial_->sync([&ran] { ++ran; });
      });
    }
    drain();
    ASSERT_EQ(ran, 2 * static_cast<int>(WorkerPool::kThreads));
  }
}

TEST_F(LinuxDispatchQueueTest, ADestroyedQueueStillRunsItsItems) {
  std::latch release(1);
  std::atomic<int> ran = 0;
  auto queue = make(DispatchQueueKind::concurrent);
  queue->asyncBarrier([&release] { release.wait(); });
  for (int i = 0; i < 10; ++i) {
    queue->async([&ran] { ++ran; });
    queue->asyncBarrier([&ran] { ++ran; });
  }
  queue.reset();
  release.count_down();
  drain();
  EXPECT_EQ(ran, 20);
}

TEST_F(LinuxDispatchQueueTest, AnItemMayHoldTheLastReferenceToItsQueue) {
  std::atomic<int> ran = 0;
  for (const auto kind : {DispatchQueueKind::serial, DispatchQueueKind::concurrent}) {
    auto queue = make(kind);
    DispatchQueue& reference = *queue;
    reference.async([queue = std::move(queue), &ran]() mutable {
      queue->async([&ran] { ++ran; });
      queue.reset();
      ++ran;
    });
  }
  drain();
  EXPECT_EQ(ran, 4);
}

TEST_F(LinuxDispatchQueueTest, ItemsMayUseOtherQueuesAndSubmitToTheirOwn) {
  int value = 0;
  serial_->async([&] {
    concurrent_->syncBarrier([&value] { ++value; });
    concurrent_->sync([&value] { EXPECT_EQ(value, 1); });
    serial_->async([&] { concurrent_->asyncBarrier([&value] { ++value; }); });
  });
  drain();
  EXPECT_EQ(value, 2);
}

TEST_F(LinuxDispatchQueueTest, AnItemIsDestroyedBeforeTheNextOneRuns) {
  auto owned = std::make_shared<int>(1);
  const std::weak_ptr<int> observer = owned;
  bool isReleased = false;
  std::latch release(1);
  serial_->async([owned = std::move(owned), &release] { release.wait(); });
  serial_->async([&] { isReleased = observer.expired(); });
  release.count_down();
  drain();
  EXPECT_TRUE(isReleased);
}

TEST_F(LinuxDispatchQueueTest, AnItemsDestructorMayUseTheQueue) {
  std::atomic<int> ran = 0;
  for (const auto& queue : {serial_, concurrent_}) {
    const auto submitsAgain = [&ran, &queue](const int*) { queue->async([&ran] { ++ran; }); };
    queue->async([owned = std::shared_ptr<const int>(nullptr, submitsAgain)] {});
    drain();
  }
  EXPECT_EQ(ran, 2);
}

TEST_F(LinuxDispatchQueueTest, BusyQueuesLeaveThreadsToOthers) {
  std::atomic<bool> ends = false;
  const std::function<void(DispatchQueue&)> submitEndlessly = [&](DispatchQueue& queue) {
    queue.async([&] {
      if (!ends) {
        submitEndlessly(queue);
      }
    });
  };
  std::vector<std::shared_ptr<DispatchQueue>> busy;
  for (std::size_t i = 0; i < WorkerPool::kThreads; ++i) {
    busy.push_back(make(DispatchQueueKind::serial));
    submitEndlessly(*busy.back());
  }
  // Ends the other items, if it ever runs.
  serial_->async([&ends] { ends = true; });
  drain();
  EXPECT_TRUE(ends);
}

// Runs body on a thread whose futex calls are counted and then performed (seccomp_unotify(2)). A
// thread needs such a call to wake another one.
void countFutexCalls(std::atomic<int>& count, const std::function<void()>& body) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
  std::thread counted([&] {
    std::array filter{
        sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_futex, 0, 1),
        sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
        sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{filter.size(), filter.data()};
    EXPECT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    const auto listener = static_cast<int>(::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER,
                                                     SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
    EXPECT_EQ(::write(pipe[1], &listener, sizeof listener), ssize_t{sizeof listener});
    body();
  });
  int listener = -1;
  ASSERT_EQ(::read(pipe[0], &listener, sizeof listener), ssize_t{sizeof listener});
  ASSERT_GE(listener, 0);
  // Hangs up when the counted thread has ended.
  pollfd waited{listener, POLLIN, 0};
  while (::poll(&waited, 1, -1) > 0 && (waited.revents & POLLIN) != 0) {
    seccomp_notif call{};
    if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) {
      continue;
    }
    ++count;
    seccomp_notif_resp answer{call.id, 0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE};
    ::ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
  }
  counted.join();
  ::close(listener);
  ::close(pipe[0]);
  ::close(pipe[1]);
}

TEST_F(LinuxDispatchQueueTest, AScheduledSerialQueueAcceptsItemsWithoutWakeUps) {
  std::latch isRunning(1);
  std::latch release(1);
  std::atomic<int> ran = 0;
  serial_->async([&] {
    isRunning.count_down();
    release.wait();
  });
  isRunning.wait();
  std::atomic<int> calls = 0;
  int whileScheduled = -1;
  countFutexCalls(calls, [&] {
    calls = 0;
    for (int i = 0; i < 100; ++i) {
      serial_->async([&ran] { ++ran; });
    }
    whileScheduled = calls;
    // An idle queue does wake a pool thread, which proves that the counter works.
    while (calls == whileScheduled) {
      make(DispatchQueueKind::serial)->async([] {});
    }
  });
  release.count_down();
  drain();
  EXPECT_EQ(whileScheduled, 0);
  EXPECT_EQ(ran, 100);
}

// Every kind of item from many threads, over data that only the queue protects.
TEST_F(LinuxDispatchQueueTest, ReadersAndWritersFromManyThreadsExcludeEachOther) {
  constexpr int kThreads = 8;
  constexpr int kItems = 3000;
  struct Shared {
    int first = 0;
    int second = 0;
    std::atomic<int> readers = 0;
    std::atomic<int> writers = 0;
    std::atomic<int> violations = 0;
    std::atomic<int> ran = 0;
  } shared;
  const auto read = [&shared] {
    ++shared.readers;
    if (shared.first != shared.second || shared.writers != 0) {
      ++shared.violations;
    }
    --shared.readers;
    ++shared.ran;
  };
  const auto write = [&shared] {
    if (++shared.writers != 1 || shared.readers != 0) {
      ++shared.violations;
    }
    ++shared.first;
    ++shared.second;
    --shared.writers;
    ++shared.ran;
  };
  std::vector<std::jthread> threads;
  for (unsigned thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      std::minstd_rand random(thread + 1);
      const auto own = make(DispatchQueueKind::serial);
      for (int i = 0; i < kItems; ++i) {
        switch (random() % 8) {
          case 0:
            concurrent_->asyncBarrier(write);
            break;
          case 1:
            concurrent_->syncBarrier(write);
            break;
          case 2:
            concurrent_->async(read);
            break;
          case 3:
            own->async([&] { concurrent_->sync(read); });
            break;
          case 4:
            own->async([&] { concurrent_->asyncBarrier(write); });
            break;
          default:
            concurrent_->sync(read);
            break;
        }
      }
      own->sync([] {});
    });
  }
  threads.clear();
  drain();
  EXPECT_EQ(shared.ran, kThreads * kItems);
  EXPECT_EQ(shared.violations, 0);
  EXPECT_EQ(shared.first, shared.second);
}

TEST_F(LinuxDispatchQueueTest, SerialItemsFromManyThreadsKeepEachSendersOrder) {
  constexpr int kThreads = 8;
  constexpr int kItems = 3000;
  std::array<int, kThreads> next{};
  int violations = 0;
  std::vector<std::jthread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kItems; ++i) {
        const auto item = [&, thread, i] { violations += next[thread]++ == i ? 0 : 1; };
        if (i % 7 == 0) {
          serial_->sync(item);
        } else {
          serial_->async(item);
        }
      }
    });
  }
  threads.clear();
  drain();
  EXPECT_EQ(violations, 0);
  for (const int count : next) {
    EXPECT_EQ(count, kItems);
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform
