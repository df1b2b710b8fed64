// Command-line options: a table of records turned into getopt_long input, one
// store callback per option met, the arguments left over handed to the
// additional-arguments record, the required check and the two-section help.
#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "app/opt_internal.h"
#include "common/free_ptr.h"
#include "kelo/app.h"

namespace kelo::app {

namespace {

constexpr uint32_t kind(const opt_record &r) { return r.type & 3u; }

// The help option's store is opt_dump_help itself, recognised by its address
// and always called by its own signature.
opt_store_fn help_store() {
  return reinterpret_cast<opt_store_fn>(reinterpret_cast<void (*)(void)>(&opt_dump_help));
}

size_t count_records(const opt_record *table) {
  size_t n = 0;
  if (table != nullptr)
    while (!is_terminator(table[n])) ++n;
  return n;
}

int has_arg_of(const opt_record &r) {
  switch (kind(r)) {
    case OPT_NOARG: return no_argument;
    case OPT_OPTARG: return optional_argument;
    default: return required_argument;
  }
}

// One help line: "  <column cut or padded to 24> <help>".
void dump_line(const opt_record &r) {
  char name[20];
  char arg[20];
  char column[48];  // room for both parts whole; the line cuts it at 24 anyway
  if (r.short_name != 0 && r.long_name != nullptr)
    snprintf(name, sizeof name, "-%c,--%s", r.short_name, r.long_name);
  else if (r.short_name != 0)
    snprintf(name, sizeof name, "-%c", r.short_name);
  else if (r.long_name != nullptr)
    snprintf(name, sizeof name, "--%s", r.long_name);
  else
    snprintf(name, sizeof name, "...");

  arg[0] = '\0';
  if (kind(r) != OPT_NOARG) {
    if (r.long_name != nullptr)
      snprintf(arg, sizeof arg, "=ARG");
    else if (r.short_name != 0)
      snprintf(arg, sizeof arg, " ARG");
  }

  if (kind(r) == OPT_OPTARG)
    snprintf(column, sizeof column, "%.20s[%s]", name, arg);
  else
    snprintf(column, sizeof column, "%.20s%s", name, arg);
  // A record without help text prints an empty one rather than pass NULL to %s.
  fprintf(stderr, "  %-24.24s %s\n", column, r.help != nullptr ? r.help : "");
}

}  // namespace

void builtin_options(opt_record out[2]) {
  out[0] = {"help", 'h', OPT_NOARG, nullptr, help_store(), "Display this message.", 0};
  out[1] = {nullptr, 0, 0, nullptr, nullptr, nullptr, 0};
}

opt_record *opt_merge(const opt_record *service, const opt_record *builtin) {
  size_t n_service = count_records(service);
  size_t n_builtin = count_records(builtin);
  auto *merged = static_cast<opt_record *>(malloc((n_service + n_builtin + 1) * sizeof(opt_record)));
  if (merged == nullptr) return nullptr;
  if (n_service != 0) memcpy(merged, service, n_service * sizeof(opt_record));
  if (n_builtin != 0) memcpy(merged + n_service, builtin, n_builtin * sizeof(opt_record));
  memset(merged + n_service + n_builtin, 0, sizeof(opt_record));
  return merged;
}

}  // namespace kelo::app

using kelo::app::is_terminator;

extern "C" {

// getopt_long keeps its position in optind between calls: app_init parses
// once; a service that parses again must set optind = 0 first.
KELO_EXPORT int opt_parse(int argc, char **argv, opt_record *table) {
  using namespace kelo::app;
  size_t n_long = 0, n_noarg = 0, n_opt = 0, n_arg = 0;
  for (opt_record *r = table; !is_terminator(*r); ++r) {
    if (r->long_name != nullptr) ++n_long;
    if (r->short_name != 0) {
      switch (kind(*r)) {
        case OPT_NOARG: ++n_noarg; break;
        case OPT_OPTARG: ++n_opt; break;
        default: ++n_arg; break;
      }
    }
  }

  kelo::FreePtr<struct option> longopts(
      static_cast<struct option *>(calloc(n_long + 1, sizeof(struct option))));
  kelo::FreePtr<char> shortopts(static_cast<char *>(calloc(n_noarg + 1 + 3 * n_opt + 2 * n_arg, 1)));
  // The sizes above are a few bytes per record; running out of memory here is
  // not survivable anyway, and writing through NULL would be worse.
  if (!longopts || !shortopts) abort();

  // A name already taken by an earlier record is cleared in this record: the
  // earlier one keeps it (a service's own "help" or 'h' beats the built-in).
  size_t nl = 0, ns = 0;
  for (opt_record *r = table; !is_terminator(*r); ++r) {
    if (r->long_name != nullptr) {
      bool taken = false;
      for (size_t i = 0; i < nl; ++i)
        if (strcmp(longopts.get()[i].name, r->long_name) == 0) taken = true;
      if (taken)
        r->long_name = nullptr;
      else
        longopts.get()[nl++] = {r->long_name, has_arg_of(*r), nullptr, 0};
    }
    if (r->short_name != 0) {
      if (strchr(shortopts.get(), r->short_name) != nullptr) {
        r->short_name = 0;
      } else {
        char *s = shortopts.get();
        s[ns++] = r->short_name;
        if (kind(*r) == OPT_OPTARG) {
          s[ns++] = ':';
          s[ns++] = ':';
        } else if (kind(*r) != OPT_NOARG) {
          s[ns++] = ':';
        }
      }
    }
  }

  for (;;) {
    int index = -1;
    int c = getopt_long(argc, argv, shortopts.get(), longopts.get(), &index);
    if (c == -1) break;
    opt_record *found = nullptr;
    if (index == -1) {
      for (opt_record *r = table; !is_terminator(*r); ++r)
        if (r->short_name != 0 && r->short_name == static_cast<char>(c)) {
          found = r;
          break;
        }
    } else {
      // The very pointer stored above, not an equal string.
      const char *name = longopts.get()[index].name;
      for (opt_record *r = table; !is_terminator(*r); ++r)
        if (r->long_name == name) {
          found = r;
          break;
        }
    }
    if (found == nullptr) return -2;
    if (found->store == nullptr) continue;
    if (found->store == help_store()) {
      opt_dump_help(table);
      exit(0);
    }
    found->store(found, optarg, found->dest);
  }

  for (opt_record *r = table; !is_terminator(*r); ++r) {
    if (r->long_name != nullptr || r->short_name != 0) continue;
    r->seen = 1;
    while (optind < argc) {
      const char *arg = argv[optind++];
      // A help record that lost both names prints once per argument; it is
      // called by its own signature, never through the store pointer.
      if (r->store == help_store())
        opt_dump_help(r);
      else
        r->store(r, arg, r->dest);
    }
    break;
  }

  // Named OPT_REQUIRED records count as present only when their own store
  // callback set `seen`; older services rely on that, do not set it here.
  for (opt_record *r = table; !is_terminator(*r); ++r) {
    if (kind(*r) != OPT_REQUIRED || r->seen != 0) continue;
    if (r->long_name != nullptr)
      fprintf(stderr, "%s: '--%s' is required.", "opt_parse", r->long_name);
    else if (r->short_name != 0)
      fprintf(stderr, "%s: '-%c' is required.", "opt_parse", r->short_name);
    else
      fprintf(stderr, "%s: additional arguments is required.", "opt_parse");
    opt_dump_help(table);
    exit(127);
  }
  return 0;
}

KELO_EXPORT void opt_dump_help(opt_record *table) {
  // Called before app_init stored a descriptor (opt_parse used on its own):
  // the program's own name stands in rather than reading through NULL.
  const char *name = app_current != nullptr ? app_current->name : program_invocation_short_name;
  fprintf(stderr, "Usage:\n  %s [OPTIONS] ...\n\n", name);

  bool header = false;
  for (const opt_record *r = table; !is_terminator(*r); ++r) {
    if ((r->type & 3u) != OPT_REQUIRED) continue;
    if (!header) fputs("Required Options:\n", stderr);
    header = true;
    kelo::app::dump_line(*r);
  }
  header = false;
  for (const opt_record *r = table; !is_terminator(*r); ++r) {
    if ((r->type & 3u) == OPT_REQUIRED) continue;
    if (!header) fputs("Optional Options:\n", stderr);
    header = true;
    kelo::app::dump_line(*r);
  }
}

// Without an argument (an OPT_OPTARG option given bare) the destination is
// left as it was instead of handing NULL to atoi or strdup.
KELO_EXPORT void opt_store_int(opt_record *, const char *arg, void *dest) {
  if (arg == nullptr || dest == nullptr) return;
  *static_cast<int32_t *>(dest) = atoi(arg);
}

KELO_EXPORT void opt_store_string(opt_record *, const char *arg, void *dest) {
  if (arg == nullptr || dest == nullptr) return;
  *static_cast<char **>(dest) = strdup(arg);
}

KELO_EXPORT void opt_inc_int(opt_record *, const char *, void *dest) {
  if (dest == nullptr) return;
  *static_cast<int32_t *>(dest) += 1;
}

}  // extern "C"
