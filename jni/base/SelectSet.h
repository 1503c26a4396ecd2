// A descriptor set for select() that grows with the descriptors in it.
//
// The C library's fd_set ends at descriptor 1023 and is overrun (or aborts the process) beyond. An
// application may hold more descriptors than that when it loads the library; the kernel's select() takes any
// number.
#pragma once

#include <sys/select.h>

#include <vector>

class SelectSet {
 public:
  SelectSet();

  /// Puts fd (0 or above) into the set, growing it as needed.
  void add(int fd);
  void remove(int fd);
  bool contains(int fd) const;
  void clear();
  /// The lowest descriptor in the set from fd (0 or above) to highest, or -1.
  int next(int fd, int highest) const;

  /// select(highest + 1, readable, writable, nothing, timeout): waits until a descriptor of a set is ready
  /// and leaves only those in it. Null sets are not examined; a null timeout waits without limit. Returns
  /// select()'s result; after an error both sets are empty, so that nothing counts as ready.
  static int select(int highest, SelectSet* readable, SelectSet* writable, timeval* timeout);

 private:
  using Word = unsigned long;  // NOLINT(google-runtime-int): the kernel's unit of descriptor sets
  static constexpr int kWordBits = 8 * sizeof(Word);

  void reserve(int fd);
  fd_set* raw() { return reinterpret_cast<fd_set*>(m_words.data()); }

  std::vector<Word> m_words;  // bit n of the whole is descriptor n; never smaller than an fd_set
};
