// Clients that come, go, stay away from their replies, and are many.
#include <fmt/format.h>
#include <poll.h>

#include "tools/check/Check.h"
#include "tools/check/Tables.h"
#include "tools/client/LocalConnection.h"
#include "wire/Funcid.h"

namespace check {
namespace {

void halfClose(Check& check) {
  Talk talk = check.connect();
  talk.send(talk.pack(FUNCID_CHECK_PERMISSION));
  talk.local().finishSending();
  const Fate fate = talk.settle();
  if (fate != Fate::ANSWERED)
    check.note("what a client asked before it closed its sending half is not answered");
  check.came(fate == Fate::ANSWERED ? "the answer, then the end" : "no answer");
  if (fate == Fate::SILENT || talk.listen(check.settings().answerWithinMs) != Fate::CLOSED) {
    check.note("the connection of a client that has closed its sending half stays open");
  }
}

void vanish(Check& check) {
  for (int round = 0; round < 20; ++round) {
    Talk talk = check.connect();
    std::string packets;
    for (int i = 0; i < 200; ++i) packets += talk.pack(FUNCID_CHECK_PERMISSION);
    talk.queue(packets);
  }
  check.alive();
}

void comeAndGo(Check& check) {
  for (int i = 0; i < 300; ++i) check.connect();
  check.alive();
}

void manyAtOnce(Check& check) {
  std::vector<Talk> talks;
  talks.reserve(static_cast<size_t>(check.settings().clients));
  for (int i = 0; i < check.settings().clients; ++i) talks.push_back(check.connect());
  for (int round = 0; round < 3; ++round) {
    for (Talk& talk : talks) talk.send(talk.pack(FUNCID_CHECK_PERMISSION));
    for (Talk& talk : talks) talk.expectAnswers();
  }
  check.came(fmt::format("{} clients served at once", talks.size()));
}

void idleClients(Check& check) {
  Talk silent = check.connect(), half = check.connect(), body = check.connect();
  half.send("RCDH");
  const std::string packet = body.pack(FUNCID_REQUEST_HIGH_IO_FREQ, gentleRequests()[1].second);
  body.send(packet.substr(0, packet.size() - 2));
  check.alive();
  body.send(packet.substr(packet.size() - 2));
  body.expectAnswers();
}

void slowReader(Check& check) {
  Talk slow = check.connect();
  // As much as the service takes while nobody reads its answers, within reason.
  const std::string burst = [&] {
    std::string packets;
    for (int i = 0; i < 50000; ++i) packets += slow.pack(FUNCID_CHECK_PERMISSION);
    return packets;
  }();
  slow.queue(burst);
  size_t unsent = burst.size();
  for (int64_t tookMs = client::steadyMs(); client::steadyMs() < tookMs + check.settings().quietMs;) {
    slow.queue("");  // writes on, and reads nothing
    const size_t left = slow.local().unsent();
    if (left < unsent) tookMs = client::steadyMs();
    unsent = left;
    poll(nullptr, 0, 1);
  }
  check.sending("50000 requests of a client that does not read; then another client's 1001");
  check.alive();
  check.sending("50000 requests of a client that starts to read late");
  const bool closed = slow.settle(check.settings().answerWithinMs) == Fate::CLOSED;
  if (!closed) slow.expectAnswers();
  check.alive();
  check.came(closed ? "the connection was closed" : "answers for both");
}

void busyNeighbour(Check& check) {
  // One client asks as fast as it can while another, one at a time, is to be served between.
  Talk busy = check.connect(), calm = check.connect();
  for (int round = 0; round < 50; ++round) {
    for (int i = 0; i < 100; ++i) busy.queue(busy.pack(FUNCID_CHECK_PERMISSION));
    calm.mustAsk(FUNCID_CHECK_PERMISSION);
  }
  busy.expectAnswers();
}

}  // namespace

const std::vector<Case>& lifeCases() {
  static const std::vector<Case> kCases = {
      {"life.half-closed", LOCAL, "1001, after which the client closes its sending half",
       "the answer, then the end of the connection", halfClose},
      {"life.vanished", LOCAL, "20 clients that ask 200 times each and leave at once",
       "other clients are served", vanish},
      {"life.come-and-go", LOCAL, "300 clients that connect and leave", "other clients are served",
       comeAndGo},
      {"life.many-clients", LOCAL, "1001 from as many clients at once as --clients says", "answers for all",
       manyAtOnce},
      {"life.idle-clients", LOCAL, "nothing, half a header, and half a body, from three clients",
       "other clients are served meanwhile, the third once its request is whole", idleClients},
      {"life.slow-reader", LOCAL, "requests of a client that does not read its answers",
       "other clients are served; its own answers come late, or its connection is closed", slowReader},
      {"life.busy-neighbour", BOTH, "5000 requests of one client while another asks one at a time",
       "both are answered", busyNeighbour},
  };
  return kCases;
}

}  // namespace check
