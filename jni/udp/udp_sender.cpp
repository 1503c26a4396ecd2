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
  const auto sent = static_cast<int>(
      sendto(m_fd, packet, packet->wireLength(), 0, reinterpret_cast<const sockaddr*>(addr), sizeof(*addr)));
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
  m_timers.insert(record);
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
  return found != m_senders.end() ? found->second.get() : nullptr;
}

UDP::Sender& UDP::getSender(const sockaddr_in& addr) {
  Sender* known = findSender(addr);
  if (known != nullptr) return *known;
  Sender& sender = *(m_senders[peerKey(addr)] = std::make_unique<Sender>());
  sender.peer = addr;
  sender.synTimeoutEvent.pkg = newPacket();
  sendPackage(&addr, PACKET_SYN, sender.s, sender.synTimeoutEvent.pkg.get());
  LOG_WARN("NEW SENDER  %s", senderText(sender).c_str());
  return sender;
}

void UDP::deleteTimeoutEvent(const TimeoutEvent& record) {
  if (!m_timers.remove(&record)) {
    LOG_ERROR("event delete failed arg:%s", timeoutText(record, m_timing.now()).c_str());
  }
}

int UDP::pumpSendQueue() {
  const int taken = takeMessage();
  for (auto& entry : m_senders) fillWindow(*entry.second);
  return taken;
}

// Cuts the oldest message into packets, unless its sender still has packets of the one before.
int UDP::takeMessage() {
  const std::unique_ptr<SendPack>* const oldest = m_requests.front();
  if (oldest == nullptr) return 0;
  Sender& sender = getSender((*oldest)->peer);
  if (!sender.q.empty()) return 0;
  const std::unique_ptr<SendPack> message = m_requests.tryPop();
  for (uint32_t sent = 0; sent < message->length;) {
    const uint32_t piece = std::min(message->length - sent, udp::kMaxPayload);
    std::unique_ptr<UdpPkg> packet = newPacket();
    packet->sessionId = message->sessionId;
    packet->totalLength = message->length;
    packet->offset = sent;
    packet->dataLength = static_cast<uint16_t>(piece);
    memcpy(packet->payload, message->data.get() + sent, piece);
    sender.q.push_back(std::move(packet));
    sent += piece;
  }
  return 1;
}

void UDP::fillWindow(Sender& sender) {
  while (!sender.q.empty()) {
    TimeoutEvent* slot = sender.win.slotFor(sender.s + 1);
    if (slot == nullptr) return;
    ++sender.s;
    slot->tc = 0;
    slot->pkg = std::move(sender.q.front());
    sender.q.pop_front();
    slot->pkg->sequence = sender.s;  // by it sendPackage() finds the slot
    sendPackage(&sender.peer, PACKET_DATA, sender.s, slot->pkg.get());
  }
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
      syn.pkg.reset();
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
      removeSender(sender);
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
  record->pkg.reset();
  if (packet.totalLength == packet.offset) {
    recvEvent(UDP_EVENT_SESSION_FINISH, sender.peer, sessionId, nullptr, 0);
  }
}

void UDP::removeSender(Sender& sender) {
  m_timers.remove(&sender.synTimeoutEvent);
  for (const TimeoutEvent& slot : sender.win.slots()) m_timers.remove(&slot);
  m_senders.erase(peerKey(sender.peer));
}

std::string UDP::senderText(const Sender& sender) const {
  const int64_t now = m_timing.now();
  char text[512];
  snprintf(text, sizeof(text), "S[%x %s %s s:%d q:%d syn:%s fin:%s]", addressBits(&sender),
           addressText(sender.peer).c_str(), stateName(sender.state), static_cast<int>(sender.s),
           static_cast<int>(sender.q.size()), timeoutText(sender.synTimeoutEvent, now).c_str(),
           timeoutText(sender.finTimeoutEvent, now).c_str());
  return text;
}
