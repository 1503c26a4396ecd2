// The UDP transport: what every end owes the other, and what it must not fall for.
#include <fmt/format.h>

#include <algorithm>

#include "base/bytes.h"
#include "tools/check/Check.h"
#include "tools/check/Tables.h"
#include "tools/check/UdpPeer.h"
#include "wire/Funcid.h"
#include "wire/header.h"
#include "wire/protos/amc.pb.h"

namespace check {
namespace {

std::string packed(uint16_t funcid = FUNCID_CHECK_PERMISSION, const std::string& body = "") {
  return client::packRequest(funcid, body, 77, 1);
}

/// A request of several datagrams that asks for nothing.
std::string longRequest(int pieces) {
  amc::RequestBootPreLoadResource message;
  for (int i = 0; i < pieces; ++i) *message.add_files() = "/nonexistent/" + std::string(950, 'x');
  return packed(FUNCID_REGISTER_BOOT_PRELOAD_RESOURCE, message.SerializeAsString());
}

void mustAnswer(Check& check, UdpPeer& peer) {
  if (!peer.reply(check.settings().answerWithinMs)) check.fail("no answer");
}

/// A datagram that must be ignored: no ACK comes of it.
void mustIgnore(Check& check, UdpPeer& peer, const std::string& what, const std::string& datagram,
                uint32_t sequence) {
  check.sending(what);
  peer.send(datagram);
  if (peer.ackOf(sequence, check.settings().quietMs)) check.fail("an acknowledgement");
}

void acknowledges(Check& check) {
  UdpPeer peer(check);
  peer.send(UdpPeer::sealed(PACKET_SYN, udp::kFirstSequence, "", 0, 0, 5));
  const auto syn = peer.ackOf(udp::kFirstSequence, check.settings().answerWithinMs);
  if (!syn) check.fail("no ACK of the SYN");
  if (syn->dataLength != 0 || syn->sessionId != 5) check.fail("an ACK of the SYN that is not its own header");
  const auto datagrams = peer.cut(longRequest(3));
  for (const std::string& datagram : datagrams) {
    UdpPkg data{};
    memcpy(static_cast<void*>(&data), datagram.data(), datagram.size());
    const uint32_t sequence = data.sequence;
    peer.send(datagram);
    const auto ack = peer.ackOf(sequence, check.settings().answerWithinMs);
    if (!ack) check.fail(fmt::format("no ACK of DATA {}", sequence));
    if (ack->dataLength != 0 || ack->offset != data.offset + data.dataLength ||
        ack->totalLength != data.totalLength || ack->sessionId != data.sessionId) {
      check.fail(fmt::format("an ACK of DATA {} with dl {} of {} tl {}, where dl 0 of {} tl {} belong",
                             sequence, uint32_t{ack->dataLength}, uint32_t{ack->offset},
                             uint32_t{ack->totalLength}, data.offset + data.dataLength,
                             uint32_t{data.totalLength}));
    }
  }
  mustAnswer(check, peer);
}

void unopened(Check& check) {
  UdpPeer peer(check);
  mustIgnore(check, peer, "DATA without a SYN before it", peer.cut(packed())[0], udp::kFirstSequence + 1);
  if (peer.reply(0)) check.fail("an answer");
  peer.restart();
  peer.open();
  peer.request(FUNCID_CHECK_PERMISSION);
  mustAnswer(check, peer);
}

void duplicates(Check& check) {
  UdpPeer peer(check);
  peer.open();
  for (const std::string& datagram : peer.cut(longRequest(3))) {
    for (int copy = 0; copy < 3; ++copy) peer.send(datagram);
  }
  mustAnswer(check, peer);
  if (peer.reply(check.settings().quietMs)) check.fail("a second answer to one request");
  if (!eventually(check.settings().answerWithinMs, [&] {
        peer.listen(1);
        return peer.acksOf(peer.lastSequence()) >= 2;
      })) {
    check.fail("a duplicate is not acknowledged again: its sender may have missed the first ACK");
  }
  check.came("one answer");
}

void reordered(Check& check) {
  UdpPeer peer(check);
  peer.open();
  const auto datagrams = peer.cut(longRequest(4));
  for (auto datagram = datagrams.rbegin(); datagram + 1 != datagrams.rend(); ++datagram) peer.send(*datagram);
  peer.listen(check.settings().quietMs);
  if (peer.ackOf(peer.lastSequence(), 0)) {
    check.fail(
        "an ACK of DATA that was ahead of what had arrived: its sender would never send what is missing");
  }
  peer.sendReliably(datagrams);
  mustAnswer(check, peer);
}

void lostReplies(Check& check) {
  UdpPeer peer(check);
  peer.open();
  peer.acknowledge(false);
  peer.request(FUNCID_CHECK_PERMISSION);
  if (!eventually(2 * check.settings().answerWithinMs, [&] {
        peer.listen(10);
        return std::any_of(peer.seen().begin(), peer.seen().end(),
                           [](const auto& seen) { return seen.second >= 2; });
      })) {
    check.fail("the reply is not sent again");
  }
  peer.acknowledge(true);
  mustAnswer(check, peer);
  check.came("the same reply again, then no more");
}

void window(Check& check) {
  UdpPeer peer(check);
  peer.open();
  peer.acknowledge(false);
  for (int i = 0; i < 12; ++i) peer.request(FUNCID_CHECK_PERMISSION);
  peer.listen(check.settings().quietMs);
  const size_t unacknowledged = peer.seen().size();
  if (unacknowledged > udp::kWindowSlots) {
    check.fail(fmt::format("{} replies without an acknowledgement", unacknowledged));
  }
  peer.acknowledge(true);
  for (int i = 0; i < 12; ++i) mustAnswer(check, peer);
  check.came(fmt::format("{} at first, then all", unacknowledged));
}

void startsAnew(Check& check) {
  UdpPeer peer(check);
  for (int round = 0; round < 3; ++round) {
    peer.restart();
    peer.open();
    peer.request(FUNCID_CHECK_PERMISSION);
    mustAnswer(check, peer);
  }
}

void closes(Check& check) {
  UdpPeer peer(check);
  peer.open();
  peer.request(FUNCID_CHECK_PERMISSION);
  mustAnswer(check, peer);
  const uint32_t fin = peer.lastSequence() + 1;
  for (const char* const when : {"the direction is open", "the direction is closed"}) {
    check.sending(fmt::format("FIN while {}", when));
    peer.send(UdpPeer::sealed(PACKET_FIN, fin));
    if (!peer.ackOf(fin, check.settings().answerWithinMs)) check.fail("no ACK");
  }
  peer.cut(packed());  // the FIN's own number: its ACK may come twice
  mustIgnore(check, peer, "DATA behind the FIN", peer.cut(packed())[0], fin + 1);
}

void broken(Check& check) {
  UdpPeer peer(check);
  peer.open();
  const std::string good = peer.cut(packed())[0];
  const uint32_t sequence = peer.lastSequence();
  std::string wrong = good;
  wrong[4] = static_cast<char>(wrong[4] ^ 1);
  mustIgnore(check, peer, "DATA with a wrong checksum", wrong, sequence);
  wrong = good;
  wrong[40] = static_cast<char>(wrong[40] ^ 1);
  mustIgnore(check, peer, "DATA with a changed byte", wrong, sequence);
  mustIgnore(check, peer, "DATA cut short", good.substr(0, good.size() - 1), sequence);
  wrong = good;
  write16le(reinterpret_cast<uint8_t*>(wrong.data()) + 2, 65535);
  mustIgnore(check, peer, "DATA that states 65535 bytes", wrong, sequence);
  mustIgnore(check, peer, "an empty datagram", "", sequence);
  mustIgnore(check, peer, "a datagram of type 3", UdpPeer::sealed(static_cast<PacketType>(3), sequence),
             sequence);
  mustIgnore(check, peer, "an ACK of nothing", UdpPeer::sealed(PACKET_ACK, 4711), sequence);
  check.sending("the same DATA, intact");
  peer.sendReliably({good});
  mustAnswer(check, peer);
}

void forged(Check& check) {
  UdpPeer peer(check), stranger(check);
  peer.open();
  const auto datagrams = peer.cut(longRequest(3));
  peer.sendReliably({datagrams[0]});
  mustIgnore(check, stranger, "a piece of another peer's message", datagrams[1], udp::kFirstSequence + 2);
  check.sending("the rest of the message, from its own peer");
  peer.sendReliably({datagrams.begin() + 1, datagrams.end()});
  mustAnswer(check, peer);
}

void badMessages(Check& check) {
  std::string wrongMagic = packed(), longer = packed(), shorter = packed();
  wrongMagic[0] = 'X';
  longer += "more";
  write32le(reinterpret_cast<uint8_t*>(shorter.data()) + request_header::kDataLen, 4);
  const std::pair<const char*, std::string> messages[] = {
      {"a message of 5 bytes", "short"},
      {"a message with a wrong magic", wrongMagic},
      {"a message with more bytes than its header states", longer},
      {"a message with fewer bytes than its header states", shorter},
  };
  for (const auto& [what, message] : messages) {
    check.sending(what);
    UdpPeer peer(check);
    peer.open();
    peer.sendReliably(peer.cut(message));
    const auto reply = peer.reply(check.settings().quietMs);
    if (reply && reply->header.status == 0) check.note(std::string(what) + " is answered with status 0");
  }
  udpAlive(check);
  check.came("no answer");
}

void claimed(Check& check) {
  for (const uint32_t length : {UINT32_MAX, uint32_t{1} << 31, uint32_t{1} << 30}) {
    UdpPeer peer(check);
    peer.open();
    check.sending(fmt::format("the first piece of a message that claims {} bytes", length));
    peer.send(UdpPeer::sealed(PACKET_DATA, udp::kFirstSequence + 1, "RCDH", 0, length, 1));
    peer.listen(50);
  }
  udpAlive(check);
}

void vanished(Check& check) {
  for (int i = 0; i < 8; ++i) {
    UdpPeer peer(check);
    peer.open();
    peer.acknowledge(false);
    for (int request = 0; request < 6; ++request) peer.request(FUNCID_REGISTER_ANR_CALLBACK);
  }
  udpAlive(check);
}

}  // namespace

const std::vector<Case>& udpCases() {
  static const std::vector<Case> kCases = {
      {"udp.acknowledges", UDP, "SYN and DATA", "each one's own header back as an ACK, with dl 0 and of + dl",
       acknowledges},
      {"udp.unopened", UDP, "DATA without a SYN, then with one", "nothing, then an answer", unopened},
      {"udp.duplicates", UDP, "each datagram of a request three times", "one answer; duplicates acknowledged",
       duplicates},
      {"udp.reordered", UDP, "the datagrams of a request in reverse order, then in order",
       "no ACK of what is ahead, then an answer", reordered},
      {"udp.lost-replies", UDP, "1001, without acknowledging the reply", "the same reply again", lostReplies},
      {"udp.window", UDP, "12 requests, without acknowledging the replies",
       "at most five replies; the rest once those are acknowledged", window},
      {"udp.starts-anew", UDP, "SYN and 1001 from one port, three times", "three answers", startsAnew},
      {"udp.closes", UDP, "FIN, twice, then DATA", "both FIN acknowledged, the DATA ignored", closes},
      {"udp.broken-datagrams", UDP, "datagrams with every kind of damage, then an intact one",
       "nothing, then an answer", broken},
      {"udp.forged", UDP, "a piece of one peer's message from another port",
       "nothing; the message arrives whole from its own peer", forged},
      {"udp.bad-messages", UDP, "whole messages that are no requests", "nothing; others are served",
       badMessages},
      {"udp.claimed-length", UDP, "first pieces of messages that claim gigabytes", "others are served",
       claimed},
      {"udp.vanished", UDP, "requests of 8 peers that acknowledge nothing", "others are served", vanished},
  };
  return kCases;
}

}  // namespace check
