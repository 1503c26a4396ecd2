// Cases that may harm the service, its other clients or the machine: with --destructive only.
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tools/check/Check.h"
#include "tools/check/Tables.h"
#include "tools/client/LocalConnection.h"
#include "wire/Funcid.h"

namespace check {
namespace {

void terminates(Check& check) {
  const pid_t child = fork();
  if (child < 0) check.skip("no process can be had");
  if (child == 0) {
    signal(SIGTERM, SIG_DFL);
    std::string problem;
    const auto connection = client::connectTo(check.settings().target, problem);
    if (connection == nullptr) _exit(100);
    connection->send(client::packRequest(FUNCID_TERMINATE_APP, "", 77, 1));
    client::Reply reply;
    const bool answered =
        connection->next(reply, client::steadyMs() + check.settings().answerWithinMs) == client::Event::REPLY;
    // For the signal. NOLINTNEXTLINE(concurrency-mt-unsafe): this process has one thread
    if (answered && reply.header.status == 0) sleep(5);
    _exit(answered && reply.header.status != 0 ? 1 : 2);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) return check.came(fmt::format("signal {}", WTERMSIG(status)));
  switch (WEXITSTATUS(status)) {
    case 1:
      return check.came("another status than 0");
    case 2:
      check.note("1012 is not refused, and has no effect");
      return;
    default:
      check.fail("the service takes no client");
  }
}

void allPlaces(Check& check) {
  Talk bystander = check.connect();
  {
    std::vector<Talk> talks;
    std::string problem;
    while (talks.size() < 500) {
      auto talk = check.tryConnect(problem);
      if (!talk || talk->ask(FUNCID_CHECK_PERMISSION) != Fate::ANSWERED) break;
      talks.push_back(std::move(*talk));
    }
    if (talks.size() == 500) check.note("500 clients of one user are served at a time");
    check.came(fmt::format("{} clients at a time", talks.size()));
    if (bystander.ask(FUNCID_CHECK_PERMISSION) != Fate::ANSWERED) {
      check.fail("a client that was there before is served no more");
    }
  }
  if (!eventually(check.settings().answerWithinMs, [&] {
        std::string problem;
        auto talk = check.tryConnect(problem);
        return talk && talk->ask(FUNCID_CHECK_PERMISSION) == Fate::ANSWERED;
      })) {
    check.fail("no client is served after all have left");
  }
}

void halfBodies(Check& check) {
  constexpr size_t kBytes = size_t{15} << 20;
  std::vector<Talk> talks;
  std::string packet =
      client::packRequest(FUNCID_REGISTER_BOOT_PRELOAD_RESOURCE, std::string(kBytes + 1, 'x'), 77, 1);
  packet.pop_back();
  int refused = 0;
  for (int i = 0; i < 20; ++i) {
    talks.push_back(check.connect());
    if (!talks.back().send(packet)) ++refused;
  }
  check.alive();
  check.came(fmt::format("{} of 20 taken", 20 - refused));
}

}  // namespace

const std::vector<Case>& destructiveCases() {
  static const std::vector<Case> kCases = {
      {"destructive.terminate", LOCAL | DESTRUCTIVE, "1012 from a process made for it",
       "SIGTERM, or another status than 0", terminates},
      {"destructive.all-places", LOCAL | DESTRUCTIVE, "1001 from clients that stay, up to 500",
       "a limit, or all served; who was there before is served on", allPlaces},
      {"destructive.half-bodies", LOCAL | DESTRUCTIVE, "15 MiB of a body of more from 20 clients",
       "other clients are served", halfBodies},
  };
  return kCases;
}

}  // namespace check
