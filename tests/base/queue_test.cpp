// The bounded queue and the descriptor helpers that everything else stands on.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "base/BoundedQueue.h"
#include "base/WakePipe.h"
#include "base/descriptor.h"
#include "support/Support.h"

TEST(BoundedQueue, ProducersBeyondTheCapacityWaitForAPlaceOrTheClose) {
  BoundedQueue<std::unique_ptr<int>> queue(5);
  std::atomic<int> pushed{3}, refused{0};
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(queue.tryPush(std::make_unique<int>(i)));
  std::vector<std::thread> producers;
  for (int i = 0; i < 9; ++i) {
    producers.emplace_back([&, i] { ++(queue.push(std::make_unique<int>(i)) ? pushed : refused); });
  }
  for (int taken = 0; taken <= 3; ++taken) {
    EXPECT_TRUE(taken == 0 || queue.tryPop() != nullptr);
    ASSERT_TRUE(eventually([&] { return pushed == 5 + taken; }));
    EXPECT_EQ(queue.size(), 5u);
    EXPECT_FALSE(queue.tryPush(std::make_unique<int>(0)));
  }
  for (int i = 0; i < 2; ++i) EXPECT_NE(queue.tryPopQuietly(), nullptr);
  queue.freePlaces();
  ASSERT_TRUE(eventually([&] { return pushed == 10; })) << "one is woken, and wakes the next";
  for (int i = 0; i < 2; ++i) queue.close();
  for (auto& producer : producers) producer.join();
  EXPECT_EQ(refused, 2);
  EXPECT_FALSE(queue.push(std::make_unique<int>(99)));
  for (int i = 0; i < 5; ++i) EXPECT_NE(queue.tryPop(), nullptr) << "what was queued stays for the consumer";
  EXPECT_EQ(queue.tryPop(), nullptr);
}

TEST(Descriptors, AreAboveTwoAndCloseOnExecEvenWhereTheApplicationClosedTheFirstThree) {
  for (const bool haveFirst : {false, true}) {  // only without them is each moved, by a call of its own
    const pid_t child = fork();
    if (child != 0) {
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      EXPECT_EQ(status, 0) << haveFirst;
      continue;
    }
    for (const int fd : {0, 1, 2}) haveFirst ? dup2(open("/dev/null", O_RDWR), fd) : close(fd);
    WakePipe pipe;
    const bool opened = pipe.open() == 0;
    const int file = openForReading("/dev/null"), socket = openSocket(AF_UNIX, SOCK_STREAM, 0);
    bool good = opened && file > 2 && socket > 2 && pipe.readEnd() > 2 && pipe.writeEnd() > 2;
    for (const int fd : {file, socket, pipe.readEnd(), pipe.writeEnd()})
      good = good && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
    for (const int fd : {0, 1, 2}) good = good && (fcntl(fd, F_GETFD) != -1) == haveFirst;
    _exit(good ? 0 : 1);
  }
}

TEST(WakePipe, AWakeNeverBlocksAndAfterTheCloseWritesNowhereEvenIfTheNumberIsReused) {
  WakePipe pipe;
  ASSERT_EQ(pipe.open(), 0);
  const int writeEnd = pipe.writeEnd();
  for (int i = 0; i < 70000; ++i) pipe.wake();
  EXPECT_EQ(pipe.drain(), 4);
  pipe.close();
  int other[2];
  ASSERT_EQ(pipe2(other, O_NONBLOCK), 0);
  ASSERT_EQ(dup2(other[1], writeEnd), writeEnd);
  pipe.wake();
  char byte = 0;
  EXPECT_EQ(read(other[0], &byte, 1), -1) << "a stranger's pipe was written to";
  for (const int fd : {other[0], other[1], writeEnd}) close(fd);
}
