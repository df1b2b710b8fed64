// Internals of the option parser, shared with the frame and the tests.
#pragma once

#include "kelo/app.h"

namespace kelo::app {

// Fills out with the built-in records appended to every service's table:
// "help" (its store is opt_dump_help) and a terminator.
void builtin_options(opt_record out[2]);

// True for the record that ends a table: no names and no store callback.
constexpr bool is_terminator(const opt_record &r) {
  return r.long_name == nullptr && r.short_name == 0 && r.store == nullptr;
}

// A fresh block (free with free()) holding the service's records up to its
// terminator, then the built-in ones, then one all-zero terminator. NULL when
// out of memory. Either table may be NULL (counts as empty).
opt_record *opt_merge(const opt_record *service, const opt_record *builtin);

}  // namespace kelo::app
