// The sending half: senders, their windows, the message queue's pump and acknowledgements.
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "udp/udp.h"

#define LOG_FILE_NAME "udp.cpp"
#include "base/log.h"

int UDP::sendPackage(const sockaddr_in* addr, uint8_t type, uint32_t sequence, UdpPkg* packet) {
  if (packet == nullptr || addr == nullptr) {
    LOG_ERROR("sendpackage pkg:%d || addr:%d", addressBits(packet), addressBits(addr));
    return -1;
  }
  sealPacket(*packet, static_cast<PacketType>(type), sequence);
  LOG_DEBUG("SEND  type:%s:%d seq:%d datalen:%d datacrc:0x%x ", packetTypeName(type), type,
            static_cast<int>(sequence), packet->dataLength, static_cast<unsigned>(packet->checksum));
  auto sent = static_cast<int>(packet->wireLength());
  for (int copies = m_timing.copies != nullptr ? m_timing.copies() : 1; copies > 0; --copies) {
    sent = static_cast<int>(sendto(m_fd, packet, packet->wireLength(), 0,
                                   reinterpret_cast<const sockaddr*>(addr), sizeof(*addr)));
  }
  LOG_DEBUG("SEND type:%s seq:%d addr:%s fd:%d len:%d sendRet:%d %s", packetTypeName(type),
            static_cast<int>(sequence), addressText(*addr).c_str(), m_fd,
            static_cast<int>(packet->wireLength()), sent, "");
  if (type == PACKET_ACK) return sent;

  Sender* sender = findSender(*addr);
  if (sender == nullptr) {
    LOG_ERROR("Invalid socket. Not in the list. addr:%s fd:%d", addressText(*addr).c_str(), m_fd);
    return -1;
  }
  TimeoutEvent* record = timerFor(*sender, packetType(type), sequence);
  if (record == nullptr && packetType(type) == PACKET_DATA) {
    LOG_ERROR("DataPkgNotFountInWin :%s win:%s", packetText(*packet).c_str(), sender->win.text().c_str());
    return -2;
  }
  if (record == nullptr) {
    LOG_ERROR("Invalid sock:%d type:%d", m_fd, type);
    return -3;
  }
  record->peer = *addr;
  record->expiry = m_timing.now() + m_interval;
  m_timers.insert(*record);
  return 0;
}

// The record of a sender that times the packets of a type; null when there is none.
UDP::TimeoutEvent* UDP::timerFor(Sender& sender, PacketType type, uint32_t sequence) {
  switch (type) {
    case PACKET_SYN:
      return &sender.synTimeoutEvent;
    case PACKET_FIN:
      return &sender.finTimeoutEvent;
    case PACKET_DATA:
      return sender.win.find(sequence);
    case PACKET_ACK:
    case PACKET_OTHER:
      break;
  }
  return nullptr;
}

UDP::Sender* UDP::findSender(const sockaddr_in& addr) {
  const auto found = m_senders.find(peerKey(addr));
  return found != m_senders.end() ? &found->second : nullptr;
}

UDP::Sender& UDP::getSender(const sockaddr_in& addr) {
  Sender* known = findSender(addr);
  if (known != nullptr) return *known;
  Sender& sender = m_senders[peerKey(addr)];
  sender.peer = addr;
  sender.synTimeoutEvent.pkg = m_packets.take();
  sendPackage(&addr, PACKET_SYN, sender.s, sender.synTimeoutEvent.pkg.get());
  LOG_WARN("NEW SENDER  %s", senderText(sender).c_str());
  return sender;
}

void UDP::deleteTimeoutEvent(TimeoutEvent& record) {
  if (!record.isLinked()) {
    LOG_ERROR("event delete failed arg:%s", timeoutText(record, m_timing.now()).c_str());
  }
  record.unlink();
}

int UDP::pumpSendQueue() {
  const int taken = takeMessage();
  while (Sender* sender = m_ready.front()) {
    sender->unlink();
    fillWindow(*sender);
  }
  return taken;
}

// Takes the oldest message, unless its sender still has to send of the one before.
int UDP::takeMessage() {
  const std::unique_ptr<SendPack>* const oldest = m_requests.front();
  if (oldest == nullptr) return 0;
  Sender& sender = getSender((*oldest)->peer);
  if (sender.message != nullptr) return 0;
  // Who waits for a place is woken for several at once, and before the loop sleeps (see eventloop()).
  sender.message = m_requests.tryPopQuietly();
  if (m_requests.keptBack() >= udp::kSendQueueMessages / 2) m_requests.freePlaces();
  sender.cut = 0;
  if (sender.message->length == 0) {
    sender.message.reset();
  } else {
    makeReady(sender);
  }
  return 1;
}

// Has the pump visit a sender. There are never more than two of them: a round takes one message and handles
// one datagram.
void UDP::makeReady(Sender& sender) {
  m_ready.insert(sender,
                 [key = peerKey(sender.peer)](const Sender& other) { return peerKey(other.peer) > key; });
}

void UDP::fillWindow(Sender& sender) {
  while (sender.message != nullptr) {
    TimeoutEvent* slot = sender.win.slotFor(sender.s + 1);
    if (slot == nullptr) return;
    ++sender.s;
    slot->tc = 0;
    slot->pkg = cutPiece(sender);
    slot->pkg->sequence = sender.s;  // by it sendPackage() finds the slot
    sendPackage(&sender.peer, PACKET_DATA, sender.s, slot->pkg.get());
  }
}

// The next piece of a sender's message; with the last one the message is freed.
std::unique_ptr<UdpPkg> UDP::cutPiece(Sender& sender) {
  const SendPack& message = *sender.message;
  const uint32_t piece = std::min(message.length - sender.cut, udp::kMaxPayload);
  std::unique_ptr<UdpPkg> packet = m_packets.take();
  packet->sessionId = message.sessionId;
  packet->totalLength = message.length;
  packet->offset = sender.cut;
  packet->dataLength = static_cast<uint16_t>(piece);
  memcpy(packet->payload, message.data.get() + sender.cut, piece);
  sender.cut += piece;
  if (sender.cut == message.length) sender.message.reset();
  return packet;
}

uint32_t UDP::Sender::queued() const {
  return message == nullptr ? 0 : (message->length - cut - 1) / udp::kMaxPayload + 1;
}

// An ACK, or a packet of a type that nobody knows.
void UDP::receiveForSender(const sockaddr_in& from, const UdpPkg& packet) {
  Sender* sender = findSender(from);
  if (sender == nullptr || packetType(packet.type) != PACKET_ACK) {
    LOG_WARN_IN("processReceive", __LINE__, "S_IGNORERecvStat %s SS:%s", packetText(packet).c_str(),
                sender != nullptr ? senderText(*sender).c_str() : "NUL_SS");
    return;
  }
  ackRecv(*sender, packet);
}

void UDP::ackRecv(Sender& sender, const UdpPkg& packet) {
  TimeoutEvent& syn = sender.synTimeoutEvent;
  const uint32_t synSequence = syn.pkg != nullptr ? syn.pkg->sequence : 0;
  switch (sender.state) {
    case SYN_SENT:
      if (syn.pkg == nullptr || packet.sequence != synSequence) {
        LOG_WARN_IN("processReceive", __LINE__, "S_IGNORERecvSEQ [%d,%d] %s SS:%s",
                    static_cast<int>(packet.sequence), static_cast<int>(synSequence),
                    packetText(packet).c_str(), senderText(sender).c_str());
        return;
      }
      deleteTimeoutEvent(syn);
      m_packets.giveBack(std::move(syn.pkg));
      sender.state = OPEN;
      return;
    case OPEN:
      ackInWindow(sender, packet);
      return;
    case FIN_SENT:
      if (packet.sequence != sender.s) {
        LOG_WARN_IN("processReceive", __LINE__, "S_IGNORERecvSEQ [%d,%d] %s SS:%s",
                    static_cast<int>(packet.sequence), static_cast<int>(sender.s), packetText(packet).c_str(),
                    senderText(sender).c_str());
        return;
      }
      LOG_WARN_IN("processReceive", __LINE__, "S_CLOSE SENDER:%s", senderText(sender).c_str());
      deleteTimeoutEvent(sender.finTimeoutEvent);
      m_senders.erase(peerKey(sender.peer));
      return;
    case OPENING:
      break;
  }
  LOG_ERROR_IN("processReceive", __LINE__, "NEVER shuold be here :%s", packetText(packet).c_str());
}

void UDP::ackInWindow(Sender& sender, const UdpPkg& packet) {
  TimeoutEvent* record = sender.win.find(packet.sequence);
  if (record == nullptr) {
    LOG_WARN_IN("processReceive", __LINE__, "S_IGNORERecvWIN %s SS:%s win:%s", packetText(packet).c_str(),
                senderText(sender).c_str(), sender.win.text().c_str());
    return;
  }
  deleteTimeoutEvent(*record);
  const int64_t sessionId = record->pkg->sessionId;  // our own: the ACK's is the peer's word only
  m_packets.giveBack(std::move(record->pkg));
  if (sender.message != nullptr) makeReady(sender);
  if (packet.totalLength == packet.offset) {
    recvEvent(UDP_EVENT_SESSION_FINISH, sender.peer, sessionId, nullptr, 0);
  }
}

std::string UDP::senderText(const Sender& sender) const {
  const int64_t now = m_timing.now();
  char text[512];
  snprintf(text, sizeof(text), "S[%x %s %s s:%d q:%d syn:%s fin:%s]", addressBits(&sender),
           addressText(sender.peer).c_str(), stateName(sender.state), static_cast<int>(sender.s),
           static_cast<int>(sender.queued()), timeoutText(sender.synTimeoutEvent, now).c_str(),
           timeoutText(sender.finTimeoutEvent, now).c_str());
  return text;
}
