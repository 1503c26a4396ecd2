// The reliable UDP transport: whole messages between any number of peers over one IPv4 datagram socket.
//
// Each direction between two peers stands alone. Its sending end is a Sender, its receiving end a Receiver; a
// transport has one of each per peer, made when needed. The sender opens with a SYN, cuts messages into DATA
// packets, keeps at most five unacknowledged and sends each one again every 500 ms, five times at most. DATA
// does not wait for the acknowledgement of the SYN. The receiver takes DATA strictly in sequence and
// acknowledges every packet by its own header.
//
// States and outcomes. "ack" sends the packet's header back as an ACK, always with dl 0; no timer is armed
// for it. Every log line is quoted; a line without a level is a warning.
//
// Receiver (s: the next sequence number wanted)
//   state      packet                     outcome
//   none       SYN                        OPENING, s = its sequence + 1, ack; "R_NEW RECEIVER:%s"
//   none       DATA                       dropped; "R_IGNORERecvStat %s RS:%s" with NUL_RS
//   none       FIN                        ack; "R_IGNORERecvRSNull: %s maybe retrans fin pkg, ack it anyway."
//   OPENING    SYN                        s = its sequence + 1, ack
//   OPEN       SYN                        forgotten with all its half-received messages, then as for none;
//                                         "R_CLEANNewSync %s RS:%s"
//   OPENING    DATA, sequence = s         OPEN, s + 1, reassembled, ack with of = of + dl
//   OPEN       DATA, sequence = s         s + 1, reassembled, ack with of = of + dl
//   both       DATA, s - 5 to s - 1       ack with of = of + dl; a duplicate whose ACK may have been lost
//   both       DATA, any other            dropped; "R_IGNORERecvSEQ [%d,%d] %s RS:%s"
//   other      DATA                       dropped; "R_IGNORERecvStat %s RS:%s" (no receiver stays in these)
//   any        FIN, sequence = s          ack, forgotten; "R_CLOSE RECEIVER:%s"
//   any        FIN, any other             dropped; "R_IGNORERecvSEQ [%d,%d] %s RS:%s"
//
// Reassembly of a piece that is next in sequence
//   next piece of its message             kept; a whole message is handed to recvEvent(), then freed
//   another offset or tl, or past its tl  dropped, ack; ERROR "session:%d offset error:%u local:%u"
//   no such message, and of is not 0 or   dropped, ack; ERROR
//   dl is beyond tl                       "Not session:%d sessionPair:%d first package offset:%u"
//   more than we allow or have            refused: no ack, s stays: the sender tries again or gives up;
//                                         DEBUG "session:%d tl:%u not acknowledged, %s: ...", then one of the
//                                         two lines above
//
// Sender (s: the last sequence number used)
//   state      packet                     outcome
//   none       ACK, unknown type          dropped; "S_IGNORERecvStat %s SS:%s" with NUL_SS
//   any        unknown type               dropped; "S_IGNORERecvStat %s SS:%s"
//   SYN_SENT   ACK, the SYN's sequence    OPEN, SYN freed
//   SYN_SENT   ACK, any other             dropped; "S_IGNORERecvSEQ [%d,%d] %s SS:%s"
//   OPEN       ACK, sequence in window    slot freed; when tl = of, recvEvent(UDP_EVENT_SESSION_FINISH)
//   OPEN       ACK, any other             dropped; "S_IGNORERecvWIN %s SS:%s win:%s"
//   FIN_SENT   ACK, sequence = s          forgotten; "S_CLOSE SENDER:%s"
//   FIN_SENT   ACK, any other             dropped; "S_IGNORERecvSEQ [%d,%d] %s SS:%s"
//   other      ACK                        dropped; ERROR "NEVER shuold be here :%s"
//
// Timer of a packet (each expiry: "TIMEOUT: %s  %s")
//   sent again less than five times       tc + 1, sent again, armed anew
//   else ("!MAXRETRANS!")                 given up: recvEvent(UDP_EVENT_TIMEOUT), not armed. The packet keeps
//                                         its slot and so bounds its sender for good. A late ACK frees it by
//                                         the rules above, after ERROR "event delete failed arg:%s".
//   record not where its packet belongs   the loop ends with -1: our own bookkeeping is broken. Nothing that
//                                         comes from the network leads here.
//
// Sending: "NEW SENDER  %s" for a peer's first message; ERROR "sendpackage pkg:%d || addr:%d" and -1 without
// packet or address, "Invalid socket. Not in the list. addr:%s fd:%d" and -1 without a sender,
// "DataPkgNotFountInWin :%s win:%s" and -2, "Invalid sock:%d type:%d" and -3. The fatal timer checks:
// "Invalid socket. Not in the list.strAddr:%s ", "timeoutEvent:%s != &ss->synTimeoutEvent:%s" (likewise fin),
// "TIME_Win_not_found %s %s win:%s".
//
// Not intact (see isIntact()): dropped before any of this; ERROR "IGNORERecv FAULTPkg ret:%d datalen:%d
// datacrc:0x%x".
//
// Kept as they are, deliberately: sequence numbers are compared as plain unsigned 32-bit numbers, wrap-around
// included; a SYN whose acknowledgement was lost opens the receiver anew, so that the first messages arrive
// twice, and a late duplicate of a SYN leaves the receiver waiting for numbers that the sender has passed; a
// message of 0 bytes sends nothing (but the SYN of a new sender); a sender lives as long as its transport and
// never sends a FIN; the first message in the queue whose sender is still busy holds up all behind it,
// whoever they are for.
//
// What peers can make us hold. A receiver of about 150 bytes per address that something comes from, 65,536 at
// most unless the constructor is told otherwise; then one is forgotten, "R_FORGET RECEIVER:%s": of those that
// have never completed a message the one silent for longest, and only without any such of the others.
// Unfinished messages: 16 for each receiver, of each no more than twice the bytes that have come, and in all
// no more than the transport's budget. When that is reached those of the peer silent for longest are dropped,
// and after 60 s without a piece any is ("R_DROP ..."). What then still comes of it meets "no such message"
// above: the sender is not told.
//
// Threads. One thread, started by startThread(), runs loop() and owns everything but the message queue and
// the stop request. recvEvent() is called on it. send() and queueMessage() are for any other thread: on a
// full queue they wait for the transport thread, which would wait for itself. stop() is for any thread.
//
// Signals: datagram sockets raise no SIGPIPE, and both ends of the wake-up pipe are ours.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "base/BoundedQueue.h"
#include "base/SelectSet.h"
#include "base/WakePipe.h"
#include "udp/udp_list.h"
#include "udp/udp_packet.h"
#include "udp/udp_reassembly.h"
#include "udp/udp_timers.h"
#include "udp/udp_window.h"

/// What the transport tells its owner through UDP::recvEvent().
enum UdpEvent : int {
  UDP_EVENT_TIMEOUT = 1,         // a packet was given up: peer, session id
  UDP_EVENT_CLOSE = 2,           // raised by nobody; owners handle it for completeness
  UDP_EVENT_DATA = 3,            // a whole message has arrived: peer, session id, message
  UDP_EVENT_SESSION_FINISH = 4,  // the last piece of a message was acknowledged: peer, session id
};

/// Use: derive, implement recvEvent(), then createSocket() and startThread(), each once. The destructor of
/// the class that implements recvEvent() must begin with stop(): the thread calls recvEvent(), which is gone
/// once that destructor has run.
class UDP {
 public:
  using UdpPkg = ::UdpPkg;
  using TimeoutEvent = ::TimeoutEvent;

  enum State : uint32_t { SYN_SENT = 0, OPENING = 1, OPEN = 2, FIN_SENT = 3 };

  /// One message in the queue.
  struct SendPack {
    sockaddr_in peer{};     // where it goes
    int64_t sessionId = 0;  // wall-clock microseconds when it was queued; need not be unique
    std::unique_ptr<uint8_t[]> data;
    uint32_t length = 0;  // bytes at `data`
  };

  /// The sending end of the direction to one peer. Linked while the pump has to visit it.
  struct Sender : Linked<Sender> {
    sockaddr_in peer{};
    State state = SYN_SENT;  // never OPENING
    uint32_t s = udp::kFirstSequence;
    TimeoutEvent finTimeoutEvent;
    TimeoutEvent synTimeoutEvent;
    SendWindow win;
    std::unique_ptr<SendPack> message;  // of which pieces wait for a place in the window; else null
    uint32_t cut = 0;                   // bytes of it that have got one

    /// The DATA packets that wait for a place in the window: they are cut when they get one.
    uint32_t queued() const;
  };

  struct Heard;
  struct Unfinished;

  /// The receiving end of the direction from one peer. Linked in the order of being heard, among those that
  /// have completed a message or among the others; and among those with unfinished messages.
  struct Receiver : Linked<Heard>, Linked<Unfinished> {
    Receiver(ReceiveMemory& memory, const sockaddr_in& peer) : peer(peer), messages(memory, peerKey(peer)) {}
    const sockaddr_in peer;
    State state = SYN_SENT;  // OPENING or OPEN once it is in the table
    uint32_t s = 0;
    bool completed = false;  // a message has come from this peer, if not to this receiver
    Reassembly messages;
  };

  /// receiveBudget  bytes that unfinished messages may hold; a message of more is refused
  /// receivers      how many of those that something comes from are remembered; at least 1
  explicit UDP(const UdpTiming& timing = UdpTiming(), size_t receiveBudget = udp::kReceiveBudget,
               size_t receivers = udp::kMaxReceivers)
      : m_memory(receiveBudget),
        m_timing(timing),
        m_maxReceivers(receivers),
        m_requests(udp::kSendQueueMessages) {}

  /// An event of the transport, a UdpEvent. Transport thread: while it runs, nothing is sent or received.
  ///
  /// peer       the other end
  /// sessionId  of the message; in UDP_EVENT_TIMEOUT of the packet (0 of a SYN)
  /// data, len  UDP_EVENT_DATA: the message, freed when this returns; otherwise null and 0
  ///
  /// Returns 0, or -1 for an unknown event; the transport does not look at it. Must not call send().
  virtual int recvEvent(int event, const sockaddr_in& peer, int64_t sessionId, const uint8_t* data,
                        uint32_t len) = 0;

  /// Inline: code built with RTTI can derive from a class only when no other place holds its table.
  virtual ~UDP() { stop(); }
  UDP(const UDP&) = delete;
  UDP& operator=(const UDP&) = delete;

  /// Creates the wake-up pipe and the socket, bound to `local` (address 0: any, port 0: the system picks
  /// one).
  ///
  /// address, port  what the log line shows as configured; the address is text
  ///
  /// Returns 0; or -1 with errno set after one ERROR line, with everything released.
  int createSocket(const sockaddr_in& local, const char* address, int port);

  /// Starts the joinable transport thread as entry(argument). The entry calls loop() and returns when that
  /// does. Returns 0; or -1 with errno set after one ERROR line, and then the caller still has the socket
  /// (stop() closes it).
  int startThread(void* (*entry)(void*), void* argument);

  /// Runs the transport until stop() is called. Transport thread, once. Returns 0, or -1 when the timers'
  /// bookkeeping was found broken. From its end on nothing can be queued.
  int loop();

  /// Ends the transport at once: refuses further messages, wakes callers that wait for a place in the queue
  /// and waits until they have left, stops the thread and joins it, closes the descriptors. Timers are
  /// dropped, nothing is waited for but a recvEvent() that is running. Any thread, any number of times: all
  /// return when it has ended, but from within recvEvent() it only asks for the end, and the owner's stop()
  /// still has to follow.
  void stop();

  /// Queues a copy of a message for a peer. Any thread but the transport's; waits while 10 messages are
  /// queued. False when the transport has ended or is stopped. Success says nothing of its delivery.
  bool send(const sockaddr_in& peer, const uint8_t* data, uint32_t length);

  /// The same of an array that is handed over.
  bool send(const sockaddr_in& peer, std::unique_ptr<uint8_t[]> data, uint32_t length);

  /// As the first, but never waits: false also while the queue is full.
  bool trySend(const sockaddr_in& peer, const uint8_t* data, uint32_t length);

  /// As send(), of a message that is ready.
  bool queueMessage(std::unique_ptr<SendPack> message);

  /// Where the socket is bound to, with the port that the system picked. After createSocket(); any thread.
  const sockaddr_in& localAddress() const { return m_local; }

  /// "SYN_SENT", "OPENING", "OPEN", "FIN_SENT", or "ERR_STATE".
  static const char* stateName(uint32_t state);

  /// A message with a copy of the data and a session id of this moment.
  static std::unique_ptr<SendPack> makeSendPack(const sockaddr_in& peer, const uint8_t* data,
                                                uint32_t length);
  static std::unique_ptr<SendPack> makeSendPack(const sockaddr_in& peer, std::unique_ptr<uint8_t[]> data,
                                                uint32_t length);

 protected:
  // Everything from here on: transport thread only.

  /// Seals a packet, sends it to `addr` and, unless it is an ACK, arms its timer. Returns 0 (for an ACK the
  /// send call's result); -1 without packet or address, or without a sender for the peer; -2 for DATA that is
  /// not in the window; -3 for a type without a timer. A failed send is left to the timer.
  int sendPackage(const sockaddr_in* addr, uint8_t type, uint32_t sequence, UdpPkg* packet);

  /// The sender for a peer, made (and its SYN sent) when there is none.
  Sender& getSender(const sockaddr_in& addr);

  /// Disarms a timer.
  void deleteTimeoutEvent(TimeoutEvent& record);

  /// One round of the queue: takes at most one message and sends what the windows admit. Returns 1 when a
  /// message was taken, else 0.
  int pumpSendQueue();

  /// Reads and handles one datagram. Returns 0.
  int processReceive();

  /// One round of the loop. Returns 0, or -1 when that ends.
  int startLoop();

  /// Handles a timer that has fallen due and is no longer pending. Returns 0, or -1 when the record is not
  /// where its packet belongs.
  int processTimeout(TimeoutEvent& record);

  /// Adds one piece, next in sequence, to its message, and hands a whole message to recvEvent(). False when
  /// the piece is refused: it must then come again.
  bool dataRecv(const UdpPkg& packet, Receiver& receiver);

  // The transport thread's while it runs, else the owner's. What is linked leaves the lists by itself.
  TimerList m_timers;
  ReceiveMemory m_memory;

 private:
  bool hand(std::unique_ptr<SendPack> message, bool wait);

  // udp_loop.cpp
  int64_t waitLimit(int64_t timeout, int64_t now) const;
  int eventloop(int64_t timeout, int64_t roundStart, int64_t wait);
  int handleFrontTimer(int64_t roundStart);
  bool isArmedRightly(const TimeoutEvent& record, Sender& sender);

  // udp_sender.cpp
  int takeMessage();
  void makeReady(Sender& sender);
  void fillWindow(Sender& sender);
  std::unique_ptr<UdpPkg> cutPiece(Sender& sender);
  Sender* findSender(const sockaddr_in& addr);
  TimeoutEvent* timerFor(Sender& sender, PacketType type, uint32_t sequence);
  void receiveForSender(const sockaddr_in& from, const UdpPkg& packet);
  void ackRecv(Sender& sender, const UdpPkg& packet);
  void ackInWindow(Sender& sender, const UdpPkg& packet);
  std::string senderText(const Sender& sender) const;

  // udp_receiver.cpp
  bool receiveOne(bool expected);
  void dispatch(const sockaddr_in& from, UdpPkg& packet);
  void synRecv(const sockaddr_in& from, UdpPkg& packet, Receiver* receiver);
  void dataPackageRecv(const sockaddr_in& from, UdpPkg& packet, Receiver* receiver);
  void finRecv(const sockaddr_in& from, UdpPkg& packet, Receiver* receiver);
  void acknowledge(const sockaddr_in& from, UdpPkg& packet);
  void logDropped(const UdpPkg& packet, const Receiver& receiver, Reassembly::Outcome outcome) const;
  bool dropMessagesOfSilentest(const Receiver& except);
  void dropExpiredMessages(int64_t now);
  Receiver& createReceiver(const sockaddr_in& from, bool completed);
  Receiver* findReceiver(const sockaddr_in& from);
  void heard(Receiver& receiver);
  void removeReceiver(const Receiver& receiver);

  const UdpTiming m_timing;
  const size_t m_maxReceivers;

  // Shared with callers.
  BoundedQueue<std::unique_ptr<SendPack>> m_requests;  // 10 messages; guards itself
  WakePipe m_wake;                                     // guards itself
  std::atomic<bool> m_stopping{false};
  std::atomic<pid_t> m_loopThread{0};  // who runs loop(), or 0
  std::atomic<unsigned> m_pushes{0};   // messages queued so far
  std::mutex m_callersLock;
  std::condition_variable m_callersGone;
  int m_callers = 0;  // callers inside queueMessage(); guarded by m_callersLock

  // The owner's, until the thread starts; read by any thread from then on.
  sockaddr_in m_local{};

  std::mutex m_stopLock;
  pthread_t m_thread{};          // written by the owner before stop(); then guarded by m_stopLock
  bool m_threadStarted = false;  // the same

  // The transport thread's while it runs, else the owner's.
  int m_fd = 0;        // the socket; 0 = none
  int m_interval = 0;  // milliseconds between two sends of a packet
  SelectSet m_readable;
  unsigned m_untilSelect = 0;  // datagrams to try for before select is asked: one has come, so may the next
  PacketPool m_packets;
  std::unordered_map<uint64_t, Sender, PeerHash> m_senders;      // by peerKey()
  std::unordered_map<uint64_t, Receiver, PeerHash> m_receivers;  // by peerKey()
  LinkedList<Sender> m_ready;                     // may have something to send now; by peerKey()
  LinkedList<Receiver, Heard> m_strangers;        // have never completed a message; the silentest in front
  LinkedList<Receiver, Heard> m_proven;           // all other receivers, likewise
  LinkedList<Receiver, Unfinished> m_unfinished;  // have unfinished messages, likewise
};
