// Doubly linked lists through their own elements: linking and unlinking cost the same whatever the length,
// and no memory. Transport thread only.
//
// An element derives from Linked<Tag> once for each list that it can be in; Tag, any type, tells them apart.
// A list never owns its elements. An element that is destroyed leaves its lists by itself.
#pragma once

/// An element's place in one list.
template <class Tag>
class Linked {
 public:
  Linked() = default;
  ~Linked() { unlink(); }
  Linked(const Linked&) = delete;
  Linked& operator=(const Linked&) = delete;

  bool isLinked() const { return m_next != nullptr; }
  /// Leaves the list; without one nothing happens.
  void unlink() {
    if (!isLinked()) return;
    m_previous->m_next = m_next;
    m_next->m_previous = m_previous;
    m_previous = m_next = nullptr;
  }

 private:
  template <class, class>
  friend class LinkedList;

  Linked* m_previous = nullptr;
  Linked* m_next = nullptr;
};

template <class Item, class Tag = Item>
class LinkedList {
 public:
  LinkedList() { m_end.m_previous = m_end.m_next = &m_end; }
  ~LinkedList() { clear(); }

  bool empty() const { return m_end.m_next == &m_end; }
  /// The first element, or null.
  Item* front() const { return empty() ? nullptr : item(m_end.m_next); }
  /// The element behind `before`, or null.
  Item* after(const Item& before) const {
    Link* next = static_cast<const Link&>(before).m_next;
    return next == &m_end ? nullptr : item(next);
  }

  /// Whether an element is in a list of this tag, and taking it out of that.
  static bool isLinked(const Item& element) { return static_cast<const Link&>(element).isLinked(); }
  static void remove(Item& element) { static_cast<Link&>(element).unlink(); }

  /// Puts an element, which leaves the list of this tag that it is in, to the end.
  void pushBack(Item& element) { insertBefore(m_end, element); }

  /// Puts an element behind the last one that `isLater` does not put behind it, looking from the end.
  template <class IsLater>
  void insert(Item& element, IsLater isLater) {
    static_cast<Link&>(element).unlink();
    Link* next = &m_end;
    while (next->m_previous != &m_end && isLater(*item(next->m_previous))) next = next->m_previous;
    insertBefore(*next, element);
  }

  void clear() {
    while (!empty()) m_end.m_next->unlink();
  }

 private:
  using Link = Linked<Tag>;
  static Item* item(Link* link) { return static_cast<Item*>(link); }

  static void insertBefore(Link& next, Link& link) {
    link.unlink();
    link.m_previous = next.m_previous;
    link.m_next = &next;
    next.m_previous->m_next = &link;
    next.m_previous = &link;
  }

  Link m_end;  // before the first and behind the last
};
