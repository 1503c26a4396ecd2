// What is answered, with what, in which order.
#include <fmt/format.h>

#include <limits>

#include "base/bytes.h"
#include "tools/check/Check.h"
#include "tools/check/Tables.h"
#include "wire/Funcid.h"
#include "wire/header.h"

namespace check {
namespace {

void checkPermission(Check& check) {
  Talk talk = check.connect();
  const uint32_t status = talk.mustAsk(FUNCID_CHECK_PERMISSION);
  check.came(fmt::format("status {}", status));
  if (status != 0) check.note(fmt::format("1001 is refused with status {}", status));
}

void everyRequest(Check& check) {
  Talk talk = check.connect();
  std::string statuses;
  for (const auto& [funcid, body] : gentleRequests()) {
    check.sending(requestText(funcid));
    switch (talk.ask(funcid, body)) {
      case Fate::ANSWERED:
        statuses += fmt::format("{}{}={}", statuses.empty() ? "" : " ", funcid, talk.status());
        break;
      case Fate::SILENT:
        talk.forgetOpen();
        if (check.settings().silent.count(funcid) == 0)
          check.fail("it is not answered, although it was before");
        check.note(requestText(funcid) + " is not answered");
        break;
      case Fate::CLOSED:
        check.fail("the service closed the connection");
    }
  }
  check.sending("all requests but 1012");
  check.came("statuses " + statuses);
}

void timeStamps(Check& check) {
  Talk talk = check.connect();
  using Limits = std::numeric_limits<int64_t>;
  for (const int64_t timestamp : {Limits::max(), Limits::min(), int64_t{-1}, int64_t{1}, int64_t{0}}) {
    check.sending(fmt::format("1001 with time stamp {}", timestamp));
    talk.send(talk.packAt(timestamp, FUNCID_CHECK_PERMISSION));
    talk.expectAnswers();
  }
}

void otherHeaderFields(Check& check) {
  Talk talk = check.connect();
  for (const uint64_t value : {uint64_t{0}, UINT64_MAX, uint64_t{1} << 63}) {
    std::string packet = talk.pack(FUNCID_CHECK_PERMISSION);
    auto* const header = reinterpret_cast<uint8_t*>(packet.data());
    write64le(header + request_header::kSendTime, value);
    write32le(header + request_header::kCallertid, static_cast<uint32_t>(value));
    check.sending(fmt::format("1001 with send time and thread {}", static_cast<int64_t>(value)));
    talk.send(packet);
    talk.expectAnswers();
  }
}

void inOrder(Check& check) {
  Talk talk = check.connect();
  std::string packets;
  for (int round = 0; round < 8; ++round) {
    for (const auto& [funcid, body] : gentleRequests()) {
      packets = talk.pack(funcid, body);
      talk.send(packets);
    }
  }
  talk.expectAnswers();
}

void ownAnswersOnly(Check& check) {
  Talk one = check.connect(), other = check.connect();
  for (int round = 0; round < 20; ++round) {
    one.send(one.pack(FUNCID_CHECK_PERMISSION));
    other.send(other.pack(FUNCID_RESET_SCREEN_RESOLUTION));
    other.send(other.pack(FUNCID_CHECK_PERMISSION));
  }
  one.expectAnswers();
  other.expectAnswers();
}

void nothingUnasked(Check& check) {
  Talk talk = check.connect();
  talk.mustAsk(FUNCID_CHECK_PERMISSION);
  if (talk.listen(check.settings().quietMs) == Fate::CLOSED) check.note("an idle client is hung up on");
  check.came("nothing");
}

}  // namespace

const std::vector<Case>& answerCases() {
  static const std::vector<Case> kCases = {
      {"answers.check-permission", BOTH, "1001", "an answer: any status", checkPermission},
      {"answers.every-request", BOTH, "each request but 1012, one after the other",
       "each answered, or left without an answer", everyRequest},
      {"answers.time-stamp", BOTH, "1001 with time stamps from the smallest to the largest",
       "each answer bears the time stamp of its request", timeStamps},
      {"answers.unread-fields", BOTH, "1001 with any send time and calling thread",
       "an answer: nothing depends on them", otherHeaderFields},
      {"answers.in-order", BOTH, "104 requests of all kinds without waiting", "answers in the same order",
       inOrder},
      {"answers.to-the-asker", BOTH, "requests of two clients at once", "each gets its own answers, no other",
       ownAnswersOnly},
      {"answers.nothing-unasked", BOTH, "1001, then nothing", "its answer, then nothing", nothingUnasked},
  };
  return kCases;
}

}  // namespace check
