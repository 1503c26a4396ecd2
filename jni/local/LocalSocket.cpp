#include "local/LocalSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "base/clock.h"
#include "base/descriptor.h"
#include "base/log.h"

namespace {

constexpr int kReadBytes = 4096;   // one read, on the loop's stack
constexpr int kBacklog = 5;        // connections that may wait for a server's accept
constexpr int kFirstScanned = 3;   // 0, 1 and 2 are never examined
constexpr int kSelectSeconds = 1;  // the longest sleep of a round
constexpr int kPauseUs = 1000;  // after what may go on for ever: an error of select(), bytes that are refused
constexpr int kNeverBlocks = 4096;  // bytes for which a socket that select() calls writable always has room
constexpr socklen_t kFamilyBytes = offsetof(sockaddr_un, sun_path);

/// The abstract address of `name`: a zero byte, then the name without a terminator. False when it is too
/// long.
bool abstractAddress(const char* name, sockaddr_un* address, socklen_t* length) {
  const size_t bytes = strlen(name);
  if (bytes > LocalSocket::kMaxNameBytes) {
    errno = ENAMETOOLONG;
    return false;
  }
  *address = {};
  address->sun_family = AF_UNIX;
  memcpy(address->sun_path + 1, name, bytes);
  *length = static_cast<socklen_t>(kFamilyBytes + 1 + bytes);
  return true;
}

/// Connects without waiting, then makes the socket blocking again. 0 or -1.
int connectAtOnce(int fd, const char* name) {
  sockaddr_un address{};
  socklen_t length = 0;
  if (!abstractAddress(name, &address, &length)) return -1;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) return -1;
  const int flags = fcntl(fd, F_GETFL);
  return flags < 0 ? -1 : fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
}

int bindAbstract(int fd, const char* name) {
  sockaddr_un address{};
  socklen_t length = 0;
  if (!abstractAddress(name, &address, &length)) return -1;
  return bind(fd, reinterpret_cast<const sockaddr*>(&address), length);
}

// The two ways of createSocket() to open `fd`, with its log lines. 0, or below 0 after an ERROR line.

int listenOn(int fd, const char* localPath) {
  const char* const name = localPath != nullptr ? localPath : "";
  unlink(name);  // kept, although an abstract name is never a file
  int ret = bindAbstract(fd, name);
  if (ret != 0) {
    LOG_ERROR_IN("createSocket", 271, "bind ret:%d fd:%d localPath:%s", ret, fd, shownText(localPath));
    return ret;
  }
  ret = listen(fd, kBacklog);
  if (ret != 0) {
    LOG_ERROR_IN("createSocket", 278, "listen ret:%d fd:%d localPath:%s", ret, fd, shownText(localPath));
    return ret;
  }
  LOG_WARN_IN("createSocket", 282, "create Server socket:%d local:%s ", fd, shownText(localPath));
  return 0;
}

int connectTo(int fd, const char* localPath, const char* remotePath) {
  const int ret = connectAtOnce(fd, remotePath);
  if (ret != 0) {
    LOG_ERROR_IN("createSocket", 294, "connect ret:%d fd:%d path:%s", ret, fd, remotePath);
    return ret;
  }
  LOG_WARN_IN("createSocket", 298, "create ClientProtocal socket:%d local:%s remote:%s", fd,
              shownText(localPath), remotePath);
  return 0;
}

}  // namespace

LocalSocket::LocalSocket() : m_queue(kQueuedPacks) {}

LocalSocket::~LocalSocket() {
  uninit();
}

int LocalSocket::createSocket(const char* localPath, const char* remotePath) {
  uninit();
  LOG_DEBUG_AT(244, "createSocket localPath: %s remotePath: %s", shownText(localPath), shownText(remotePath));
  if (m_fd >= 1) return 0;
  {
    std::lock_guard<std::mutex> lock(m_stateLock);
    if (m_looping) return -1;  // the loop that was just told to end still uses the descriptors
  }
  int ret = m_pipe.open();
  if (ret < 0) {
    LOG_ERROR_AT(249, "create pipe ret:%d", ret);
    return -1;
  }
  const bool isServer = remotePath == nullptr || remotePath[0] == '\0';
  int fd = openSocket(AF_UNIX, SOCK_STREAM | (isServer ? 0 : SOCK_NONBLOCK), 0);
  if (fd < 0) {
    LOG_ERROR_AT(254, "create socket fd:%d", fd);
    return -1;
  }
  ret = isServer ? listenOn(fd, localPath) : connectTo(fd, localPath, remotePath);
  if (ret != 0) {
    closeDescriptor(fd);
    return -1;
  }
  // A descriptor of 0 would mean "none"; openSocket() never gives one out.
  std::lock_guard<std::mutex> lock(m_stateLock);
  m_socket = fd;
  m_fd = fd;
  return 0;
}

bool LocalSocket::enqueue(SendPack pack) {
  const bool queued = m_queue.push(std::move(pack));
  m_pipe.wakeSleeper();
  return queued;
}

int LocalSocket::loop(bool isServer) {
  {
    std::lock_guard<std::mutex> lock(m_stateLock);
    m_looping = true;
  }
  m_master.clear();
  m_pipeEnd = m_pipe.readEnd();
  m_maxFd = std::max(m_socket, m_pipeEnd);
  m_master.add(m_socket);
  m_master.add(m_pipeEnd);
  LOG_DEBUG_AT(125, "mfd:%d  maxfd:%d isServer:%d", m_fd.load(), m_maxFd, isServer);

  int result = 0;
  while (m_fd != 0 && result == 0) {
    const SendResult sent = sendFront(nowMs());
    if (sent == SendResult::EndLoop) break;
    if (sent == SendResult::NextRound) continue;
    const int ready = waitForInput();
    if (ready == -1 && errno != EINTR) {
      LOG_DEBUG_AT(166, "loop: select errno:%d", errno);
      usleep(kPauseUs);
    }
    if (ready > 0 && !scanReadable(isServer)) result = -1;
  }
  finish();
  return result;
}

/// The round's wait for whatever is to be done next: input, a place in the socket for the pack that is now at
/// the front, or, when none is queued, a wake-up. select()'s result; what is readable is in m_readable.
///
/// Who waits for a place in the queue is woken before the loop sleeps, and not for each pack of a burst: that
/// costs two context switches a request (docs/performance.md). Behind a front pack it is the next round that
/// does it, when it finds the socket full: with places kept back this one only looks.
int LocalSocket::waitForInput() {
  m_readable = m_master;
  const SendPack* front = m_queue.front();
  if (front == nullptr) {
    m_queue.freePlaces();
    m_pipe.goToSleep();
    front = m_queue.front();  // what was queued before the announcement woke nobody
  }
  timeval limit = {kSelectSeconds, 0};
  if (front == nullptr) return SelectSet::select(m_maxFd, &m_readable, nullptr, &limit);
  if (!isOpen(*front) || m_queue.keptBack() != 0) limit.tv_sec = 0;  // the next round drops it, or frees them
  m_writable.clear();
  if (isOpen(*front)) m_writable.add(front->fd);
  return SelectSet::select(m_maxFd, &m_readable, &m_writable, &limit);
}

/// Writes the front pack as far as one send goes.
LocalSocket::SendResult LocalSocket::sendFront(int64_t roundStartMs) {
  SendPack* const pack = m_queue.front();
  if (pack == nullptr) return SendResult::Nothing;
  const int fd = pack->fd;
  const int len = pack->len;
  const bool open = isOpen(*pack);
  if (open && !checkCanWrite(fd)) {
    m_queue.freePlaces();
    return SendResult::Nothing;
  }
  ssize_t ret = -1;  // what the loop has closed fails untried: its number may be somebody else's by now
  if (open) {
    if (len > kNeverBlocks) m_queue.freePlaces();
    const uint8_t* const rest = pack->data.get() + pack->offset;
    ret = retryEintr([&] { return send(fd, rest, static_cast<size_t>(len - pack->offset), 0); });
  }
  if (ret < 0 && m_fd == 0) return SendResult::EndLoop;  // told to end, and the socket shut down
  if (ret < 0) {
    LOG_ERROR_IN("loop", 136, "send failed fd:%d mfd:%d", fd, m_fd.load());
    if (fd == m_socket) {
      onSocketError(fd);
      return SendResult::EndLoop;
    }
    m_queue.tryPop();
    if (open) {
      m_master.remove(fd);
      onSocketError(fd);
    }
    return SendResult::NextRound;
  }
  pack->offset += static_cast<int32_t>(ret);
  const int offset = pack->offset;
  if (offset == len) m_queue.tryPopQuietly();
  LOG_DEBUG_IN("loop", 158, "send: ret:%d fd:%d len:%d off:%d queue:%d time:%d ", static_cast<int>(ret), fd,
               len, offset, static_cast<int>(m_queue.size()), static_cast<int>(nowMs() - roundStartMs));
  return SendResult::Sent;
}

bool LocalSocket::checkCanWrite(int fd) {
  m_writable.clear();
  m_writable.add(fd);
  timeval atOnce = {0, 0};
  SelectSet::select(fd, nullptr, &m_writable, &atOnce);
  const bool can = m_writable.contains(fd);
  LOG_DEBUG_AT(65, " FD_ISSET(fd, &fdset) :%d fd:%d", can, fd);
  return can;
}

bool LocalSocket::isOpen(const SendPack& pack) const {
  return pack.fd == m_socket || (!pack.peerGone && m_peers.count(pack.fd) != 0);
}

/// Handles every descriptor that is ready. False ends the loop.
bool LocalSocket::scanReadable(bool isServer) {
  const int highest = m_maxFd;
  for (int fd = m_readable.next(kFirstScanned, highest); fd >= 0; fd = m_readable.next(fd + 1, highest)) {
    if (m_fd == 0) return true;  // told to end
    if (!m_master.contains(fd)) continue;
    if (fd == m_pipeEnd) {
      m_pipe.drain();
    } else if (isServer && fd == m_socket) {
      if (socketAccept() < 0) return false;
    } else {
      receive(fd);
    }
  }
  return true;
}

int LocalSocket::socketAccept() {
  // Zeroed and one byte longer than the address, so that unnamed peers and the longest names are terminated.
  struct {
    sockaddr_un address;
    char end;
  } peer{};
  socklen_t length = sizeof(sockaddr_un);
  int accepted = keepAboveStdio(retryEintr(
      [&] { return accept4(m_socket, reinterpret_cast<sockaddr*>(&peer.address), &length, SOCK_CLOEXEC); }));
  if (accepted < 0 && m_fd == 0) return 0;  // told to end meanwhile
  if (accepted < 0) {
    LOG_ERROR_AT(76, "accept error fd:%d ret:%d ", m_socket, accepted);
    return -1;
  }
  if (!setSocketNonBlock(accepted)) {
    LOG_ERROR_AT(81, "setSocketNonBlock error acceptFd:%d", accepted);
    closeDescriptor(accepted);
    return -1;
  }
  length = std::min<socklen_t>(length - std::min(length, kFamilyBytes), sizeof(peer.address.sun_path));
  char* const sunPath = reinterpret_cast<char*>(&peer) + kFamilyBytes;
  sunPath[length] = '\0';
  const char* const name = sunPath + 1;

  ucred credentials{};
  socklen_t credentialBytes = sizeof(credentials);
  getsockopt(accepted, SOL_SOCKET, SO_PEERCRED, &credentials, &credentialBytes);
  LOG_DEBUG_AT(90, "getsockopt pid:%d uid:%d gid:%d len:%d", credentials.pid, credentials.uid,
               credentials.gid, credentialBytes);
  LOG_WARN_AT(93, "Accept fd:%d acceptFd:%d uid:%d path:%s ", m_socket, accepted, credentials.uid, name);
  if (recvEvent(EVENT_ACCEPT, accepted, credentials.uid, name, nullptr, 0) < 0) {
    LOG_ERROR_AT(96, "NotAccept fd:%d uid:%d path:%s", accepted, credentials.uid, sunPath);
    closeDescriptor(accepted);
    return -1;  // as designed, one refused peer ends a server
  }
  m_peers[accepted] = PeerInfo{credentials.uid, name};
  m_master.add(accepted);
  m_maxFd = std::max(m_maxFd, accepted);
  return 0;
}

bool LocalSocket::setSocketNonBlock(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) {
    LOG_ERROR_AT(46, "fcntl F_GETFL  failed fd:%d flag:%d", fd, flags);
    return false;
  }
  const int ret = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  if (ret < 0) {
    LOG_ERROR_AT(51, "fcntl F_SETFL failed fd:%d ret:%d ", fd, ret);
    return false;
  }
  return true;
}

void LocalSocket::receive(int fd) {
  m_queue.freePlaces();  // what arrives may keep its receiver busy
  uint8_t buffer[kReadBytes];
  const int ret = static_cast<int>(
      retryEintr([&] { return recvfrom(fd, buffer, sizeof(buffer), MSG_DONTWAIT, nullptr, nullptr); }));
  if (ret <= 0 && m_fd == 0) return;  // told to end meanwhile
  // An urgent byte makes a socket readable that has nothing to read; to wait for more would hold up sends.
  if (ret < 0 && errno == EAGAIN) return;
  if (ret <= 0) {
    LOG_ERROR_IN("loop", 195, "recv error , fd:%d ret:%d errno:%d", fd, ret, errno);
    m_master.remove(fd);
    onSocketError(fd);
    return;
  }
  LOG_DEBUG_IN("loop", 200, "recv fd:%d ret:%d", fd, ret);
  const PeerInfo& peer = m_peers[fd];
  if (recvEvent(EVENT_DATA, fd, peer.uid, peer.path.c_str(), buffer, ret) < 0) usleep(kPauseUs);
}

/// Tells the owner; closes an accepted peer, but leaves the socket itself to the end of the loop.
void LocalSocket::onSocketError(int fd) {
  if (fd == m_socket) {
    recvEvent(EVENT_ERROR, fd, 0, nullptr, nullptr, 0);
    return;
  }
  const PeerInfo peer = m_peers[fd];
  recvEvent(EVENT_ERROR, fd, peer.uid, peer.path.c_str(), nullptr, 0);
  m_peers.erase(fd);
  m_queue.forEach([fd](SendPack& pack) { pack.peerGone |= pack.fd == fd; });
  closeDescriptor(fd);
}

void LocalSocket::closePeers() {
  for (const auto& entry : m_peers) {
    int fd = entry.first;
    if (fd != m_socket) closeDescriptor(fd);
  }
  m_peers.clear();
}

/// The end of the loop: nobody waits for it any more, and all it used is closed.
void LocalSocket::finish() {
  m_queue.close();
  closePeers();
  {
    std::lock_guard<std::mutex> lock(m_stateLock);
    m_looping = false;
  }
  uninit();
}

void LocalSocket::uninit() {
  LOG_WARN_AT(211, "uninit pipe:%d,%d m_fd:%d queue:%d", m_pipe.readEnd(), m_pipe.writeEnd(), m_fd.load(),
              static_cast<int>(m_queue.size()));
  std::lock_guard<std::mutex> lock(m_stateLock);
  if (m_looping) {
    m_fd = 0;
    m_pipe.wake();
    // A loop that is blocked in a send to a service that does not read comes back from it.
    if (m_socket != 0) shutdown(m_socket, SHUT_RDWR);
    return;
  }
  m_pipe.close();
  m_fd = 0;
  closeDescriptor(m_socket);
  while (m_queue.tryPop()) {
  }
}
