// Effects end: by their cancel, their time, or with the connection. Tried on a thread of the checker's own.
#include <fmt/format.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>

#include "tools/check/Check.h"
#include "tools/check/Tables.h"
#include "wire/Funcid.h"
#include "wire/protos/amc.pb.h"

namespace check {
namespace {

cpu_set_t affinityOf(pid_t tid) {
  cpu_set_t set;
  CPU_ZERO(&set);
  sched_getaffinity(tid, sizeof(set), &set);
  return set;
}

/// A thread that does nothing, for the service to bind.
class OwnThread {
 public:
  OwnThread() {
    m_thread = std::thread([this] {
      std::unique_lock<std::mutex> lock(m_lock);
      m_tid = gettid();
      m_changed.notify_all();
      m_changed.wait(lock, [this] { return m_ends; });
    });
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait(lock, [this] { return m_tid != 0; });
    m_before = affinityOf(m_tid);
  }
  ~OwnThread() {
    {
      const std::lock_guard<std::mutex> lock(m_lock);
      m_ends = true;
    }
    m_changed.notify_all();
    m_thread.join();
  }
  int32_t tid() const { return m_tid; }
  bool isBound() const {
    const cpu_set_t now = affinityOf(m_tid);
    return CPU_EQUAL(&now, &m_before) == 0;
  }
  bool couldBeBound() const { return CPU_COUNT(&m_before) > 1; }

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  pid_t m_tid = 0;      // guarded by m_lock until the constructor returns
  bool m_ends = false;  // guarded by m_lock
  cpu_set_t m_before{};
  std::thread m_thread;
};

std::string bindMessage(int32_t tid, int32_t timeout) {
  amc::RequestCPUCoreForThread message;
  message.set_scene(1);
  message.add_bindtids(tid);
  message.set_timeout(timeout);
  message.set_action(1);
  return message.SerializeAsString();
}

/// Has the service bind the thread, as far as it does such things.
void bind(Check& check, Talk& talk, const OwnThread& thread, int32_t timeout) {
  if (!thread.couldBeBound()) check.skip("this program may use one CPU only");
  if (talk.ask(FUNCID_REQUEST_CPU_CORE_FOR_THREAD, bindMessage(thread.tid(), timeout)) != Fate::ANSWERED) {
    check.skip("1004 is not answered");
  }
  if (talk.status() != 0) check.skip(fmt::format("1004 is refused with status {}", talk.status()));
  if (!eventually(check.settings().quietMs, [&] { return thread.isBound(); })) {
    check.skip("1004 is answered with status 0 and binds nothing that can be seen here");
  }
}

void mustBeUndone(Check& check, const OwnThread& thread, int64_t withinMs) {
  if (!eventually(withinMs, [&] { return !thread.isBound(); })) {
    check.fail(fmt::format("the thread is still bound after {} ms", withinMs));
  }
  check.came("the thread may run where it might before");
}

void byCancel(Check& check) {
  const OwnThread thread;
  Talk talk = check.connect();
  bind(check, talk, thread, 0);
  amc::CancelCPUCoreForThread cancel;
  cancel.add_bindtids(thread.tid());
  talk.mustAsk(FUNCID_CANCEL_CPU_CORE_FOR_THREAD, cancel.SerializeAsString());
  mustBeUndone(check, thread, check.settings().answerWithinMs);
}

void byTime(Check& check) {
  constexpr int32_t kMs = 200;
  const OwnThread thread;
  Talk talk = check.connect();
  bind(check, talk, thread, kMs);
  if (!eventually(kMs + check.settings().answerWithinMs, [&] { return !thread.isBound(); })) {
    check.note(fmt::format("a timeout of {} is not milliseconds, or is not kept to", kMs));
  }
  check.came("the thread may run where it might before");
}

void byLeaving(Check& check) {
  const OwnThread thread;
  {
    Talk talk = check.connect();
    bind(check, talk, thread, 0);
  }
  mustBeUndone(check, thread, check.settings().answerWithinMs);
}

void overlapping(Check& check) {
  const OwnThread thread;
  {
    Talk first = check.connect();
    bind(check, first, thread, 0);
    {
      Talk second = check.connect();
      second.mustAsk(FUNCID_REQUEST_CPU_CORE_FOR_THREAD, bindMessage(thread.tid(), 0));
    }
    check.alive();  // so that the service has seen it go
    if (!thread.isBound()) check.note("the first of two boosts of a thread ends with the second");
  }
  mustBeUndone(check, thread, check.settings().answerWithinMs);
}

void othersThreads(Check& check) {
  const pid_t child = fork();
  if (child == 0) {
    while (true) pause();
  }
  if (child < 0) check.skip("no process can be had");
  const cpu_set_t before = affinityOf(child);
  std::string came, skipped;
  try {
    Talk talk = check.connect();
    const Fate fate = talk.ask(FUNCID_REQUEST_CPU_CORE_FOR_THREAD, bindMessage(child, 1000));
    const cpu_set_t after = affinityOf(child);
    if (CPU_EQUAL(&before, &after) == 0) check.note("threads of another process of the same user are bound");
    check.came(fate == Fate::ANSWERED ? fmt::format("status {}", talk.status()) : "no answer");
  } catch (...) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    throw;
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

}  // namespace

const std::vector<Case>& undoCases() {
  static const std::vector<Case> kCases = {
      {"undo.by-cancel", LOCAL, "1004 for a thread of this program, then 1005", "the binding ends", byCancel},
      {"undo.by-time", LOCAL, "1004 for 200 ms", "the binding ends by itself", byTime},
      {"undo.by-leaving", LOCAL, "1004 without an end, after which the client leaves", "the binding ends",
       byLeaving},
      {"undo.overlapping", LOCAL, "1004 for one thread from two clients, which leave one after the other",
       "bound until both have left, then as before", overlapping},
      {"undo.others-threads", LOCAL, "1004 for a thread of another process",
       "another status than 0, no effect", othersThreads},
  };
  return kCases;
}

}  // namespace check
