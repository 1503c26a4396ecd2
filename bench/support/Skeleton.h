// The floor of the requests: the library's system calls in the library's order, and nothing else.
//
// A producer takes a place in a queue of five (a mutex, two semaphores), puts a packet in and writes 4 bytes
// to a pipe. The loop looks at the front, asks select() without waiting whether the socket can be written,
// sends, waits in select() for socket and pipe (for a full socket to be writable, too), reads the pipe. What
// arrives is read and handed to a second thread through a queue like the first.
#pragma once

#include <fcntl.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/time.h>

#include <algorithm>
#include <mutex>

#include "support/Peer.h"

/// A bounded queue of bare bytes.
template <size_t kPlaces, size_t kBytes>
class BareQueue {
 public:
  BareQueue() {
    sem_init(&m_free, 0, kPlaces);
    sem_init(&m_items, 0, 0);
  }
  void push(const uint8_t* bytes) {
    sem_wait(&m_free);
    {
      const std::lock_guard<std::mutex> lock(m_lock);
      memcpy(m_ring[m_tail++ % kPlaces], bytes, kBytes);
    }
    sem_post(&m_items);
  }
  const uint8_t* front() {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_head == m_tail ? nullptr : m_ring[m_head % kPlaces];
  }
  void pop() {
    sem_wait(&m_items);
    {
      const std::lock_guard<std::mutex> lock(m_lock);
      ++m_head;
    }
    sem_post(&m_free);
  }
  void wait() {
    sem_wait(&m_items);
    sem_post(&m_items);
  }

 private:
  std::mutex m_lock;
  sem_t m_free, m_items;
  uint8_t m_ring[kPlaces][kBytes];
  size_t m_head = 0, m_tail = 0;
};

class Skeleton {
 public:
  using Arrived = void (*)();

  /// `arrived` is called on the second thread for every read of the socket.
  explicit Skeleton(Arrived arrived = nullptr) : m_socket(peer().connected()), m_arrived(arrived) {
    if (pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0) abort();
    m_loop = std::thread([this] { loop(); });
    if (arrived != nullptr) m_second = std::thread([this] { deliver(); });
  }
  ~Skeleton() {
    m_ended = true;
    wake();
    m_loop.join();
    if (m_second.joinable()) {
      m_replies.push(m_packet);
      m_second.join();
    }
    for (const int fd : {m_socket, m_pipe[0], m_pipe[1]}) close(fd);
  }
  void request() {
    m_requests.push(m_packet);
    wake();
  }

 private:
  void wake() { static_cast<void>(write(m_pipe[1], &m_pipe[1], sizeof(int))); }
  void loop() {
    uint8_t bytes[4096];
    while (!m_ended) {
      fd_set writable;
      FD_ZERO(&writable);
      if (const uint8_t* const packet = m_requests.front()) {
        FD_SET(m_socket, &writable);
        timeval atOnce = {0, 0};
        if (select(m_socket + 1, nullptr, &writable, nullptr, &atOnce) == 1) {
          if (send(m_socket, packet, kRequestBytes, 0) != static_cast<ssize_t>(kRequestBytes)) abort();
          m_requests.pop();
          FD_ZERO(&writable);
        } else {
          FD_SET(m_socket, &writable);  // full: waited for below, or it would stand still for a second
        }
      }
      fd_set readable;
      FD_ZERO(&readable);
      FD_SET(m_socket, &readable);
      FD_SET(m_pipe[0], &readable);
      timeval second = {1, 0};
      if (select(std::max(m_socket, m_pipe[0]) + 1, &readable, &writable, nullptr, &second) < 1) continue;
      if (FD_ISSET(m_pipe[0], &readable)) static_cast<void>(read(m_pipe[0], bytes, sizeof(int)));
      if (FD_ISSET(m_socket, &readable) && recv(m_socket, bytes, sizeof(bytes), 0) > 0) m_replies.push(bytes);
    }
  }
  void deliver() {
    for (;;) {
      m_replies.wait();
      if (m_ended) return;
      m_replies.pop();
      m_arrived();
    }
  }

  const uint8_t m_packet[kRequestBytes] = {};
  const int m_socket;
  int m_pipe[2];
  BareQueue<5, kRequestBytes> m_requests;
  BareQueue<64, kReplyBytes> m_replies;
  const Arrived m_arrived;
  std::atomic<bool> m_ended{false};
  std::thread m_loop, m_second;
};
