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
           static_cast<int>(receiver->s), receiver->sessions.size());
  return text;
}

}  // namespace

int UDP::processReceive() {
  UdpPkg packet;
  clearHeader(packet);
  sockaddr_in from{};
  socklen_t length = sizeof(from);
  const auto received = static_cast<int>(
      recvfrom(m_fd, &packet, sizeof(packet), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &length));
  LOG_DEBUG("RECV ret:%d from:%s fd:%d %s", received, addressText(from).c_str(), m_fd,
            packetText(packet).c_str());
  if (!isIntact(packet, received)) {
    LOG_ERROR("IGNORERecv FAULTPkg ret:%d datalen:%d datacrc:0x%x", received, packet.dataLength,
              static_cast<unsigned>(packet.checksum));
    return 0;
  }
  packet.checksum = 0;  // as while it was being checked; the texts below show it so, and an ACK gets its own
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
  return 0;
}

void UDP::synRecv(const sockaddr_in& from, UdpPkg& packet, Receiver* receiver) {
  if (receiver != nullptr && receiver->state != OPENING) {
    LOG_WARN_IN("processReceive", __LINE__, "R_CLEANNewSync %s RS:%s", packetText(packet).c_str(),
                receiverText(receiver).c_str());
    removeReceiver(*receiver);
    receiver = nullptr;
  }
  if (receiver == nullptr) receiver = &createReceiver(from);
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
    receiver->state = OPEN;
    ++receiver->s;
    dataRecv(packet, *receiver);
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

void UDP::dataRecv(const UdpPkg& packet, Receiver& receiver) {
  const int64_t sessionId = packet.sessionId;
  const auto outcome = receiver.sessions.add(packet);
  const RecvSession* session = receiver.sessions.find(sessionId);
  switch (outcome) {
    case Reassembly::Outcome::STORED:
      return;
    case Reassembly::Outcome::COMPLETE:
      recvEvent(UDP_EVENT_DATA, receiver.peer, sessionId, session->buffer.get(), session->total);
      receiver.sessions.erase(sessionId);
      return;
    case Reassembly::Outcome::WRONG_OFFSET:
      LOG_ERROR("session:%d offset error:%u local:%u", static_cast<int>(sessionId),
                static_cast<unsigned>(packet.offset), session->received);
      return;
    case Reassembly::Outcome::WRONG_FIRST:
      LOG_ERROR("Not session:%d sessionPair:%d first package offset:%u", static_cast<int>(sessionId), 0,
                static_cast<unsigned>(packet.offset));
      return;
  }
}

UDP::Receiver& UDP::createReceiver(const sockaddr_in& from) {
  if (m_receivers.size() >= udp::kMaxReceivers) {
    const Receiver& silent = *m_receivers[m_heard.front()];
    LOG_WARN_IN("processReceive", __LINE__, "R_FORGET RECEIVER:%s", receiverText(&silent).c_str());
    removeReceiver(silent);
  }
  Receiver& receiver = *(m_receivers[peerKey(from)] = std::make_unique<Receiver>());
  receiver.peer = from;
  receiver.heard = m_heard.insert(m_heard.end(), peerKey(from));
  LOG_WARN_IN("processReceive", __LINE__, "R_NEW RECEIVER:%s", receiverText(&receiver).c_str());
  return receiver;
}

// The receiver of a peer that was just heard, or null.
UDP::Receiver* UDP::findReceiver(const sockaddr_in& from) {
  const auto found = m_receivers.find(peerKey(from));
  if (found == m_receivers.end()) return nullptr;
  m_heard.splice(m_heard.end(), m_heard, found->second->heard);
  return found->second.get();
}

void UDP::removeReceiver(const Receiver& receiver) {
  const uint64_t key = peerKey(receiver.peer);
  m_heard.erase(receiver.heard);
  m_receivers.erase(key);
}
