// Intrusive doubly linked lists of the library: a head pointer; the head's prev
// link points at the tail; the tail's next link is NULL; a linked node always
// has a non-NULL prev link. Unlinking a node that is not linked is a broken
// invariant and aborts with the standard assertion message, in every build.
#pragma once

#include <assert.h>

// <assert.h> declares this only without NDEBUG; the unlink check aborts in
// every build, so declare it here too (same signature as glibc's).
extern "C" void __assert_fail(const char *assertion, const char *file, unsigned int line,
                              const char *function) noexcept __attribute__((__noreturn__));

namespace kelo::dlist {

// Appends n at the tail of the list at *head.
template <typename Node>
inline void append(Node **head, Node *n) {
  if (*head == nullptr) {
    n->prev = n;
    n->next = nullptr;
    *head = n;
  } else {
    n->prev = (*head)->prev;
    (*head)->prev->next = n;
    (*head)->prev = n;
    n->next = nullptr;
  }
}

// Unlinks n, which the caller has checked to be linked; leaves n->prev NULL.
template <typename Node>
inline void unlink_checked(Node **head, Node *n) {
  if (n->prev == n) {
    *head = nullptr;
  } else if (n == *head) {
    n->next->prev = n->prev;
    *head = n->next;
  } else {
    n->prev->next = n->next;
    if (n->next)
      n->next->prev = n->prev;
    else
      (*head)->prev = n->prev;
  }
  n->prev = nullptr;
  n->next = nullptr;
}

// Empties the list at *head, marking every node unlinked; nodes are not freed
// (they belong to whoever linked them).
template <typename Node>
inline void clear(Node **head) {
  for (Node *n = *head, *next; n != nullptr; n = next) {
    next = n->next;
    n->prev = nullptr;
    n->next = nullptr;
  }
  *head = nullptr;
}

}  // namespace kelo::dlist

// Unlinks node from the list at head, asserting that it is linked. The text of
// expr is what the failed assertion prints, e.g. "(q)->prev != NULL".
#define KELO_DLIST_UNLINK(head, node, expr)                                         \
  do {                                                                              \
    if ((node)->prev == nullptr) __assert_fail(expr, __FILE__, __LINE__, __func__); \
    ::kelo::dlist::unlink_checked((head), (node));                                  \
  } while (0)
