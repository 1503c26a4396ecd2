#include "base/SelectSet.h"

#include <algorithm>
#include <cerrno>

SelectSet::SelectSet() : m_words(sizeof(fd_set) / sizeof(Word)) {}

void SelectSet::reserve(int fd) {
  const size_t words = static_cast<size_t>(fd) / kWordBits + 1;
  if (words > m_words.size()) m_words.resize(words);
}

void SelectSet::add(int fd) {
  reserve(fd);
  m_words[fd / kWordBits] |= Word{1} << (fd % kWordBits);
}

void SelectSet::remove(int fd) {
  if (contains(fd)) m_words[fd / kWordBits] &= ~(Word{1} << (fd % kWordBits));
}

bool SelectSet::contains(int fd) const {
  if (fd < 0 || static_cast<size_t>(fd) / kWordBits >= m_words.size()) return false;
  return (m_words[fd / kWordBits] >> (fd % kWordBits) & 1) != 0;
}

int SelectSet::next(int fd, int highest) const {
  while (fd <= highest && static_cast<size_t>(fd) / kWordBits < m_words.size()) {
    const Word rest = m_words[fd / kWordBits] >> (fd % kWordBits);
    if (rest != 0) {
      const int found = fd + __builtin_ctzl(rest);
      return found <= highest ? found : -1;
    }
    fd += kWordBits - fd % kWordBits;  // the next word's first
  }
  return -1;
}

void SelectSet::clear() {
  std::fill(m_words.begin(), m_words.end(), 0);
}

int SelectSet::select(int highest, SelectSet* readable, SelectSet* writable, timeval* timeout) {
  for (SelectSet* set : {readable, writable}) {
    if (set != nullptr) set->reserve(highest);
  }
  const int ready = ::select(highest + 1, readable != nullptr ? readable->raw() : nullptr,
                             writable != nullptr ? writable->raw() : nullptr, nullptr, timeout);
  if (ready < 0) {
    const int kept = errno;
    if (readable != nullptr) readable->clear();
    if (writable != nullptr) writable->clear();
    errno = kept;
  }
  return ready;
}
