// The local-socket transport: a UNIX stream socket in the abstract namespace, a send queue and one select()
// loop.
//
// It knows nothing of packets; framing is its subclass's job. As a client it connects and reads; as a server
// (which the library itself never is) it listens and asks its subclass about every peer.
//
// Threads. One thread runs loop(); everything marked "loop thread" below belongs to it, or to whoever holds
// the object while no loop runs. Producers enqueue from any thread. uninit() from anywhere while the loop
// runs only marks the socket as gone and wakes the loop; the loop thread then closes and frees what it was
// using, and what fails on the way is no failure any more. An object runs one loop in its life: when the loop
// ends the queue closes, and producers that wait for a place come back.
//
// The object must outlive its loop; LocalsocketClient sees to it by sharing itself with the thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "base/BoundedQueue.h"
#include "base/SelectSet.h"
#include "base/WakePipe.h"

/// What recvEvent() is told about. Code 2 is never produced.
enum LocalSocketEvent : int32_t {
  EVENT_ERROR = 0,   // a read returned 0 or an error, or a send failed: fd, uid and path of the peer
  EVENT_DATA = 1,    // bytes arrived: fd, uid, path, the bytes
  EVENT_ACCEPT = 3,  // a server accepted a connection: the new fd, the peer's uid and name; below 0 refuses
};

class LocalSocket {
 public:
  /// The longest name in the abstract namespace: sun_path less its leading zero byte.
  static constexpr size_t kMaxNameBytes = 107;

  /// Opens the socket: connects to the abstract name `remotePath`, or, when that is null or empty, listens on
  /// the abstract name `localPath` (which a client only logs). Never waits: a service whose backlog is full
  /// is a failure at once. Returns 0; -1 with one ERROR line on failure (the pipe may then be open until the
  /// next uninit()). Not to be called while a loop runs: that ends the loop and returns -1.
  int createSocket(const char* localPath, const char* remotePath);

  /// Runs until the socket is gone: uninit(), a failed send to m_fd or, for a server, a failed or refused
  /// accept. Closes everything at its end. Returns 0, or -1 after a failed accept or a refused peer. A
  /// calling thread that must survive a vanished peer has SIGPIPE blocked (sends use flags 0).
  int loop(bool isServer);

  /// Closes the pipe and the socket and empties the queue; while a loop runs, makes that loop end and do so.
  /// Any thread; harmless when repeated.
  void uninit();

 protected:
  /// A packet waiting to be written.
  struct SendPack {
    int32_t fd = 0;  // where to: m_fd at the time of queueing, or an accepted peer. A pack for a peer that
                     // the loop has closed meanwhile is dropped with the "send failed" line; the number may
                     // be somebody else's by now, or the next peer's.
    std::unique_ptr<uint8_t[]> data;  // the packet
    int32_t len = 0;                  // its bytes
    int32_t offset = 0;               // bytes already written
    bool peerGone = false;            // set by the loop when it closes fd

    explicit operator bool() const { return data != nullptr; }
  };

  /// At most this many packs wait; the next producer blocks until the loop is done with one (see
  /// BoundedQueue).
  static constexpr unsigned kQueuedPacks = 5;

  LocalSocket();

  /// Called by the loop thread for every event; see LocalSocketEvent. `path` may be null, `data` is valid
  /// during the call only, `len` is in bytes. Below 0 refuses: the peer of an EVENT_ACCEPT; the bytes of an
  /// EVENT_DATA, after which the loop rests for a millisecond, so that nonsense without end costs neither a
  /// processor nor the log. Nothing else comes of it.
  virtual int32_t recvEvent(int32_t event, int32_t fd, uint32_t uid, const char* path, const uint8_t* data,
                            int32_t len) = 0;

 public:
  virtual ~LocalSocket();
  LocalSocket(const LocalSocket&) = delete;
  LocalSocket& operator=(const LocalSocket&) = delete;

 protected:
  /// Queues a pack and wakes the loop. Any thread; waits while the queue is full. False when the loop has
  /// ended: the pack is freed and nothing will be sent.
  bool enqueue(SendPack pack);

  /// The connected or listening socket, 0 = none. Written by createSocket() and uninit(), read anywhere.
  std::atomic<int32_t> m_fd{0};

 private:
  struct PeerInfo {
    uint32_t uid = 0;
    std::string path;
  };
  enum class SendResult { Nothing, Sent, NextRound, EndLoop };

  bool setSocketNonBlock(int fd);
  int socketAccept();
  bool checkCanWrite(int fd);
  bool isOpen(const SendPack& pack) const;
  SendResult sendFront(int64_t roundStartMs);
  int waitForInput();
  bool scanReadable(bool isServer);
  void receive(int fd);
  void onSocketError(int fd);
  void closePeers();
  void finish();

  WakePipe m_pipe;                 // guards itself
  BoundedQueue<SendPack> m_queue;  // guards itself; consumed by the loop thread
  std::mutex m_stateLock;          // guards m_looping and the fate of m_socket
  bool m_looping = false;          // guarded by m_stateLock: whether the loop thread owns the descriptors

  // The loop thread's, or the holder's while no loop runs.
  int m_socket = 0;                     // the descriptor behind m_fd until it is really closed
  std::map<int32_t, PeerInfo> m_peers;  // by descriptor; reading an absent key creates an empty entry
  SelectSet m_readable;  // what select() left of m_master; kept, so that a round allocates nothing
  SelectSet m_writable;  // the one descriptor to be written, likewise
  SelectSet m_master;    // what the loop listens to
  int m_pipeEnd = 0;     // the pipe's read end, which only the loop's end closes
  int m_maxFd = 0;       // the highest descriptor in m_master
};
