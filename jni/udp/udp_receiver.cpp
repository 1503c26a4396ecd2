// The receiving half: the dispatcher of incoming datagrams, receivers, acknowledgements and reassembly.
#include <sys/socket.h>

#include <cstdio>

#include "udp/udp.h"

#define LOG_FILE_NAME "udp.cpp"
#include "base/log.h"

namespace {

std::string receiverText(const UDP::Receiver* receiver) {
  if (receiver == nullptr) return "NUL_RS";
  char text[512];
  snprintf(text, sizeof(text), "R[%x %s %s s:%d m:%d]", addressBits(receiver),
           addressText(receiver->peer).c_str(), UDP::stateName(receiver->state),
           static_cast<int>(receiver->s), receiver->messages.size());
  return text;
}

}  // namespace

int UDP::processReceive() {
  receiveOne(true);
  return 0;
}

// Reads and handles one datagram. False when none was there, which is told in the log only when it is
// `expected`.
bool UDP::receiveOne(bool expected) {
  UdpPkg packet;
  clearHeader(packet);
  sockaddr_in from{};
  socklen_t length = sizeof(from);
  const auto received = static_cast<int>(
      recvfrom(m_fd, &packet, sizeof(packet), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &length));
  if (received < 0 && !expected) return false;
  LOG_DEBUG_IN("processReceive", __LINE__, "RECV ret:%d from:%s fd:%d %s", received,
               addressText(from).c_str(), m_fd, packetText(packet).c_str());
  if (!isIntact(packet, received)) {
    LOG_ERROR_IN("processReceive", __LINE__, "IGNORERecv FAULTPkg ret:%d datalen:%d datacrc:0x%x", received,
                 packet.dataLength, static_cast<unsigned>(packet.checksum));
    return received >= 0;
  }
  // The checksum is 0 now, as while it was being checked: the texts below show it so, an ACK gets its own.
  dispatch(from, packet);
  return true;
}

void UDP::dispatch(const sockaddr_in& from, UdpPkg& packet) {
  Receiver* receiver = findReceiver(from);
  switch (packetType(packet.type)) {
    case PACKET_SYN:
      synRecv(from, packet, receiver);
      break;
    case PACKET_DATA:
      dataPackageRecv(from, packet, receiver);
      break;
    case PACKET_FIN:
      finRecv(from, packet, receiver);
      break;
    case PACKET_ACK:
    case PACKET_OTHER:
      receiveForSender(from, packet);
      break;
  }
}

void UDP::synRecv(const sockaddr_in& from, UdpPkg& packet, Receiver* receiver) {
  const bool completed = receiver != nullptr && receiver->completed;
  if (receiver != nullptr && receiver->state != OPENING) {
    LOG_WARN_IN("processReceive", __LINE__, "R_CLEANNewSync %s RS:%s", packetText(packet).c_str(),
                receiverText(receiver).c_str());
    removeReceiver(*receiver);
    receiver = nullptr;
  }
  if (receiver == nullptr) receiver = &createReceiver(from, completed);
  receiver->state = OPENING;
  receiver->s = packet.sequence + 1;
  acknowledge(from, packet);
}

void UDP::dataPackageRecv(const sockaddr_in& from, UdpPkg& packet, Receiver* receiver) {
  if (receiver == nullptr || (receiver->state != OPENING && receiver->state != OPEN)) {
    LOG_WARN_IN("processReceive", __LINE__, "R_IGNORERecvStat %s RS:%s", packetText(packet).c_str(),
                receiverText(receiver).c_str());
    return;
  }
  const uint32_t expected = receiver->s;
  // Plain unsigned numbers: with an expected number below 5 nothing is ever accepted. Kept.
  if (packet.sequence < expected - udp::kReacknowledged || packet.sequence > expected) {
    LOG_WARN_IN("processReceive", __LINE__, "R_IGNORERecvSEQ [%d,%d] %s RS:%s",
                static_cast<int>(packet.sequence), static_cast<int>(expected), packetText(packet).c_str(),
                receiverText(receiver).c_str());
    return;
  }
  if (packet.sequence == expected) {
    // What is refused changes nothing: the sender tries again, or gives up.
    if (!dataRecv(packet, *receiver)) return;
    receiver->state = OPEN;
    ++receiver->s;
  }
  packet.offset += packet.dataLength;
  acknowledge(from, packet);
}

void UDP::finRecv(const sockaddr_in& from, UdpPkg& packet, Receiver* receiver) {
  if (receiver == nullptr) {
    LOG_WARN_IN("processReceive", __LINE__, "R_IGNORERecvRSNull: %s maybe retrans fin pkg, ack it anyway.",
                packetText(packet).c_str());
    acknowledge(from, packet);
    return;
  }
  if (packet.sequence != receiver->s) {
    LOG_WARN_IN("processReceive", __LINE__, "R_IGNORERecvSEQ [%d,%d] %s RS:%s",
                static_cast<int>(packet.sequence), static_cast<int>(receiver->s), packetText(packet).c_str(),
                receiverText(receiver).c_str());
    return;
  }
  acknowledge(from, packet);
  LOG_WARN_IN("processReceive", __LINE__, "R_CLOSE RECEIVER:%s", receiverText(receiver).c_str());
  removeReceiver(*receiver);
}

// Sends the packet back as its own acknowledgement, without its payload.
void UDP::acknowledge(const sockaddr_in& from, UdpPkg& packet) {
  packet.dataLength = 0;
  sendPackage(&from, PACKET_ACK, packet.sequence, &packet);
}

bool UDP::dataRecv(const UdpPkg& packet, Receiver& receiver) {
  using Outcome = Reassembly::Outcome;
  const int64_t now = m_timing.now();
  Outcome outcome = receiver.messages.add(packet, now);
  while (outcome == Outcome::NO_ROOM && dropMessagesOfSilentest(receiver)) {
    outcome = receiver.messages.add(packet, now);
  }
  if (outcome == Outcome::COMPLETE) {
    receiver.completed = true;
    m_proven.pushBack(receiver);
    m_requests.freePlaces();  // the owner may be busy with it for a while
    recvEvent(UDP_EVENT_DATA, receiver.peer, packet.sessionId, receiver.messages.message(packet),
              packet.totalLength);
    receiver.messages.erase(packet.sessionId);
  } else if (outcome != Outcome::STORED) {
    logDropped(packet, receiver, outcome);
  }
  if (receiver.messages.size() != 0) {
    m_unfinished.pushBack(receiver);
  } else {
    m_unfinished.remove(receiver);
  }
  return !Reassembly::isRefused(outcome);
}

void UDP::logDropped(const UdpPkg& packet, const Receiver& receiver, Reassembly::Outcome outcome) const {
  const auto session = static_cast<int>(packet.sessionId);
  if (Reassembly::isRefused(outcome)) {
    LOG_DEBUG_IN("dataRecv", __LINE__, "session:%d tl:%u not acknowledged, %s: %u of %u bytes are used RS:%s",
                 session, static_cast<unsigned>(packet.totalLength), Reassembly::reason(outcome),
                 static_cast<unsigned>(m_memory.used), static_cast<unsigned>(m_memory.budget),
                 receiverText(&receiver).c_str());
  }
  if (const RecvSession* known = receiver.messages.find(packet.sessionId)) {
    LOG_ERROR_IN("dataRecv", __LINE__, "session:%d offset error:%u local:%u", session,
                 static_cast<unsigned>(packet.offset), known->received);
  } else {
    LOG_ERROR_IN("dataRecv", __LINE__, "Not session:%d sessionPair:%d first package offset:%u", session, 0,
                 static_cast<unsigned>(packet.offset));
  }
}

// Drops the unfinished messages of the peer that was silent for longest, but not those of `except`. False
// when nobody else has any.
bool UDP::dropMessagesOfSilentest(const Receiver& except) {
  Receiver* silent = m_unfinished.front();
  if (silent == &except) silent = m_unfinished.after(*silent);
  if (silent == nullptr) return false;
  LOG_WARN_IN("dataRecv", __LINE__, "R_DROP unfinished messages, others need their room RS:%s",
              receiverText(silent).c_str());
  silent->messages.clear();
  m_unfinished.remove(*silent);
  return true;
}

void UDP::dropExpiredMessages(int64_t now) {
  for (const RecvSession* oldest = nullptr;
       (oldest = m_memory.byLastPiece.front()) != nullptr && now - oldest->heard >= udp::kPartialMessageMs;) {
    Receiver& receiver = m_receivers.find(oldest->peerKey)->second;
    LOG_WARN("R_DROP unfinished session:%d, no piece for %d ms RS:%s", static_cast<int>(oldest->id),
             static_cast<int>(now - oldest->heard), receiverText(&receiver).c_str());
    receiver.messages.erase(oldest->id);
    if (receiver.messages.size() == 0) m_unfinished.remove(receiver);
  }
}

UDP::Receiver& UDP::createReceiver(const sockaddr_in& from, bool completed) {
  if (m_receivers.size() >= m_maxReceivers) {
    const Receiver& silent = *(m_strangers.empty() ? m_proven : m_strangers).front();
    LOG_WARN_IN("processReceive", __LINE__, "R_FORGET RECEIVER:%s", receiverText(&silent).c_str());
    removeReceiver(silent);
  }
  const uint64_t key = peerKey(from);
  Receiver& receiver = m_receivers.try_emplace(key, m_memory, from).first->second;
  receiver.completed = completed;
  heard(receiver);
  LOG_WARN_IN("processReceive", __LINE__, "R_NEW RECEIVER:%s", receiverText(&receiver).c_str());
  return receiver;
}

// The receiver of a peer that was just heard, or null.
UDP::Receiver* UDP::findReceiver(const sockaddr_in& from) {
  const auto found = m_receivers.find(peerKey(from));
  if (found == m_receivers.end()) return nullptr;
  heard(found->second);
  return &found->second;
}

// Notes that a peer was silent for shorter than all others.
void UDP::heard(Receiver& receiver) {
  (receiver.completed ? m_proven : m_strangers).pushBack(receiver);
  if (m_unfinished.isLinked(receiver)) m_unfinished.pushBack(receiver);
}

void UDP::removeReceiver(const Receiver& receiver) {
  m_receivers.erase(peerKey(receiver.peer));
}
