// The channels' worker thread on its own: one thread for the worker's life,
// results and exceptions handed back, a command that outlives its limit still
// joined, and an idle thread that sleeps. Also run under ThreadSanitizer.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "ChannelWorker.h"

namespace {

using qorvarlok::shm::ChannelWorker;

struct Job {
  uint32_t input = 0;
  std::thread::id ranOn;
  std::atomic<bool> release{true};  // the body returns once this is true
  bool raise = false;
  std::vector<int> record;  // stands for the caller's record the body writes
};

uint32_t Body(void* context) {
  auto* job = static_cast<Job*>(context);
  while (!job->release.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  job->ranOn = std::this_thread::get_id();
  job->record.assign(1000, static_cast<int>(job->input));
  if (job->raise) throw std::runtime_error("mapping lost");
  return job->input * 3;
}

double ProcessCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

TEST(ChannelWorker, RunsEveryCommandOnOneThreadOfItsOwnAndHandsBackResultsAndFaults) {
  ChannelWorker worker;
  EXPECT_FALSE(worker.Running());
  std::thread::id first;
  for (uint32_t i = 1; i <= 2000; ++i) {
    Job job;
    job.input = i;
    job.raise = i % 500 == 0;
    ASSERT_TRUE(worker.Post(&Body, &job));
    ASSERT_TRUE(worker.WaitFor(5000));
    if (job.raise) {
      EXPECT_THROW(worker.Join(), std::runtime_error) << i;
    } else {
      ASSERT_EQ(i * 3, worker.Join()) << i;
    }
    ASSERT_EQ(1000u, job.record.size());
    ASSERT_EQ(static_cast<int>(i), job.record.back());
    if (i == 1) first = job.ranOn;
    ASSERT_EQ(first, job.ranOn) << i;
  }
  EXPECT_NE(std::this_thread::get_id(), first);
  EXPECT_TRUE(worker.Running());
  EXPECT_EQ(1u, worker.Starts());
}

TEST(ChannelWorker, CommandPastItsLimitIsJoinedBeforeTheCallerGoesOn) {
  ChannelWorker worker;
  Job job;
  job.input = 7;
  job.release = false;
  ASSERT_TRUE(worker.Post(&Body, &job));
  EXPECT_FALSE(worker.WaitFor(30));  // still held
  std::thread releaser([&job] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    job.release = true;
  });
  EXPECT_EQ(21u, worker.Join());  // no limit: returns once the body has
  EXPECT_EQ(7, job.record.at(999));
  releaser.join();
  Job next;  // and the worker takes the next command
  next.input = 8;
  ASSERT_TRUE(worker.Post(&Body, &next));
  ASSERT_TRUE(worker.WaitFor(5000));
  EXPECT_EQ(24u, worker.Join());
  EXPECT_EQ(1u, worker.Starts());
}

TEST(ChannelWorker, IdleThreadSleepsAndStopsWithItsWorker) {
  auto worker = std::make_unique<ChannelWorker>();
  Job job;
  ASSERT_TRUE(worker->Post(&Body, &job));
  ASSERT_TRUE(worker->WaitFor(5000));
  worker->Join();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // past the bounded spin
  const double before = ProcessCpuMs();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  // A thread that kept spinning would have used about 300 ms.
  EXPECT_LT(ProcessCpuMs() - before, 15.0);
  worker.reset();  // joins the sleeping thread
}

// A process forked after commands ran has the worker but not its thread: its
// commands still run (on a thread of its own), and its worker goes without
// waiting for the parent's thread. The child reports through its exit code.
TEST(ChannelWorker, ForkedChildRunsItsOwnCommandsAndLeavesTheParentsThreadAlone) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer ends a child of a threaded fork that starts a thread";
#endif
  ChannelWorker worker;
  Job job;
  job.input = 2;
  ASSERT_TRUE(worker.Post(&Body, &job));
  ASSERT_TRUE(worker.WaitFor(5000));
  ASSERT_EQ(6u, worker.Join());
  const pid_t child = fork();
  ASSERT_NE(-1, child);
  if (child == 0) {
    alarm(20);  // a hang ends the child by signal, never as a pass
    Job mine;
    mine.input = 5;
    const bool ran = worker.Post(&Body, &mine) && worker.WaitFor(5000) && worker.Join() == 15u &&
                     mine.ranOn != std::this_thread::get_id() && worker.Starts() == 2u;
    worker.~ChannelWorker();
    _exit(ran ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  job.input = 3;  // the parent's thread is untouched by the child
  ASSERT_TRUE(worker.Post(&Body, &job));
  ASSERT_TRUE(worker.WaitFor(5000));
  EXPECT_EQ(9u, worker.Join());
  EXPECT_EQ(1u, worker.Starts());
}

}  // namespace
