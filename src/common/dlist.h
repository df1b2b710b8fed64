// Intrusive doubly linked lists of the library (send queue, close hooks, state
// hooks, pending calls), kept with utlist: a head pointer; the head's prev link
// points at the tail; the tail's next link is NULL; a linked node always has a
// non-NULL prev link. Unlinking a node that is not linked is a broken invariant
// and aborts with the standard assertion message, in every build.
#pragma once

#include <assert.h>

#include <utlist.h>

// <assert.h> declares this only without NDEBUG; the unlink check aborts in
// every build, so declare it here too (same signature as glibc's).
#ifdef NDEBUG
extern "C" void __assert_fail(const char *assertion, const char *file, unsigned int line,
                              const char *function) noexcept __attribute__((__noreturn__));
#endif

namespace kelo::dlist {

// Appends n at the tail of the list at *head.
template <typename Node>
inline void append(Node **head, Node *n) {
  DL_APPEND(*head, n);
}

// Unlinks n from the list at *head and leaves n->prev NULL (the mark of an
// unlinked node). A node that is not linked fails the assertion expr, reported
// as raised in func: utlist's own check is compiled out with NDEBUG.
template <typename Node>
inline void unlink(Node **head, Node *n, const char *expr, const char *file, unsigned line,
                   const char *func) {
  if (n->prev == nullptr) __assert_fail(expr, file, line, func);
  DL_DELETE(*head, n);
  n->prev = nullptr;
  n->next = nullptr;
}

// Empties the list at *head, marking every node unlinked; nodes are not freed
// (they belong to whoever linked them).
template <typename Node>
inline void clear(Node **head) {
  Node *n, *next;
  DL_FOREACH_SAFE(*head, n, next) {
    n->prev = nullptr;
    n->next = nullptr;
  }
  *head = nullptr;
}

}  // namespace kelo::dlist

// Unlinks node from the list at head, asserting that it is linked; a failure
// names the calling function and prints expr, e.g. "(q)->prev != NULL".
#define KELO_DLIST_UNLINK(head, node, expr) \
  ::kelo::dlist::unlink((head), (node), expr, __FILE__, __LINE__, __func__)
