// Start-up and footprint: the smallest service on the library
// (bench/startup/service_lib.c: one option, one RPC method, the loop until a
// timer breaks it) against the same service written by hand on libev and
// json-c, side by side, in two forms: bench/startup/service_same.c does at
// start what the library's start-up does (the environment, the log-control
// region, the "register" text queued with a random id, the wake-up, atexit),
// so the two differ only in what the library costs as a library; the goal
// is measured against it. bench/startup/service_hand.c is the smallest
// hand-written service, which skips that work; its ratio is printed too.
// The figures:
//   - instructions from exec to the first loop iteration, on the camera's
//     instruction set: the armhf builds run under qemu-arm-static with
//     -singlestep -d exec,nochain,strace (qemu 7.2 has no plugins): with
//     single-stepping and no chaining every executed instruction is one
//     "Trace" line of the log, and the strace lines in the same log mark the
//     first loop iteration (libev's first epoll_wait). The count is exact and
//     repeatable; where the instructions go is read from the same log
//     (guest addresses against the objects' mappings);
//   - Rss and Private_Dirty from /proc/self/smaps_rollup on the host, read
//     by each service in its timer callback (bench/startup/footprint.h);
//   - the writable bytes, dynamic relocations and NEEDED entries of the
//     shared object (host and armhf), and the stripped armhf size.
//
// Every service runs in a private mount and network namespace
// (unshare -rmn, a fresh tmpfs on /dev/shm, only a loopback that is down):
// the installed library has no test seam, and these are the real paths,
// so they must never meet the machine's /dev/shm/kelo-* or port 54320.
// Without user namespaces the measurements are skipped, never run outside.
// Both services run with LD_LIBRARY_PATH set to the build directory, so both
// pay the same library search.
//
// The goals are printed beside the figures; nothing here fails on them.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr double kGoalRatio = 1.15;              // armhf instructions, library / hand-written
constexpr long kGoalDirtyKb = 24;                // host Private_Dirty, library minus hand-written
constexpr long kGoalStrippedBytes = 112 * 1024;  // stripped armhf shared object

const char *const kArmSysroot = "/usr/arm-linux-gnueabihf";
const char *const kArmLdso = "/usr/arm-linux-gnueabihf/lib/ld-linux-armhf.so.3";

// Runs argv with extra environment; returns its standard output ("" and
// ok = false when it cannot be run or does not exit 0).
std::string run(const std::vector<std::string> &argv, const std::vector<std::string> &env, bool &ok) {
  ok = false;
  int fds[2];
  if (pipe(fds) != 0) return "";
  pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return "";
  }
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    int null = open("/dev/null", O_WRONLY);
    if (null >= 0) dup2(null, 2);
    for (const auto &e : env) putenv(const_cast<char *>(e.c_str()));
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(fds[1]);
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return out;
}

std::string run(const std::vector<std::string> &argv) {
  bool ok;
  return run(argv, {}, ok);
}

// argv run inside a private mount + network namespace with its own /dev/shm;
// with warm_up (argv being the qemu command of armhf_count: $2 the sysroot,
// $4 the library path, ${10} the service) the service runs once before,
// unmeasured.
std::vector<std::string> sandboxed(const std::vector<std::string> &argv, bool warm_up = false) {
  std::vector<std::string> v = {"unshare", "-rmn", "sh", "-c",
                                warm_up ? "mount -t tmpfs tmpfs /dev/shm && "
                                          "qemu-arm-static -L \"$2\" -E \"$4\" \"${10}\" >/dev/null && "
                                          "exec \"$0\" \"$@\""
                                        : "mount -t tmpfs tmpfs /dev/shm && exec \"$0\" \"$@\""};
  v.insert(v.end(), argv.begin(), argv.end());
  return v;
}

bool sandbox_works() {
  bool ok;
  run(sandboxed({"true"}), {}, ok);
  return ok;
}

bool have(const char *prog) {
  bool ok;
  run({"sh", "-c", std::string("command -v ") + prog}, {}, ok);
  return ok;
}

bool exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

long field(const std::string &text, const std::string &name) {
  size_t p = text.find(name + "=");
  return p == std::string::npos ? -1 : strtol(text.c_str() + p + name.size() + 1, nullptr, 10);
}

// ---- host footprint ---------------------------------------------------------

struct Footprint {
  long rss_kb = -1, dirty_kb = -1;
};

Footprint host_footprint(const std::string &service, const std::string &libdir) {
  bool ok;
  std::string out = run(sandboxed({service}), {"LD_LIBRARY_PATH=" + libdir}, ok);
  return {field(out, "rss_kb"), field(out, "private_dirty_kb")};
}

// ---- armhf instruction count ------------------------------------------------

// Instructions from exec to the first epoll_wait, and where they went.
struct Count {
  long total = -1;
  std::map<std::string, long> parts;
};

unsigned long hex(const std::string &s) { return strtoul(s.c_str(), nullptr, 16); }

unsigned long elf_entry(const std::string &path) {
  std::string out = run({"readelf", "-h", path});
  size_t p = out.find("Entry point address:");
  return p == std::string::npos ? 0 : strtoul(out.c_str() + p + 20, nullptr, 16);
}

std::string base_name(const std::string &path) { return path.substr(path.rfind('/') + 1); }

// warm_up: the service has run once before in the same namespace, so the
// shared regions exist (every start on a device but the first after boot).
Count armhf_count(const std::string &service, const std::string &libdir, bool warm_up = false) {
  Count c;
  char log_path[] = "/tmp/kelo-startup-XXXXXX";
  int fd = mkstemp(log_path);
  if (fd < 0) return c;
  close(fd);
  bool ok;
  run(sandboxed({"qemu-arm-static", "-L", kArmSysroot, "-E", "LD_LIBRARY_PATH=" + libdir, "-singlestep", "-d",
                 "page,exec,nochain,strace", "-D", log_path, service},
                warm_up),
      {}, ok);
  std::ifstream log(log_path);
  const unsigned long ldso_entry = elf_entry(kArmLdso);
  unsigned long code_lo = 0, code_hi = 0, ldso_lo = 0;
  struct Range {
    unsigned long lo, hi;
    std::string name;
  };
  std::vector<Range> objects;
  std::map<std::string, std::string> fd_path;
  std::string pending_mmap;
  bool in_program = false;
  long n = 0;
  std::string line;
  while (std::getline(log, line)) {
    if (line.compare(0, 6, "Trace ") == 0) {
      // "Trace 0: 0xHOST [flags/PC/...]"
      size_t a = line.find('/');
      if (a == std::string::npos) continue;
      unsigned long pc = strtoul(line.c_str() + a + 1, nullptr, 16);
      ++n;
      std::string where;
      if (pc >= code_lo && pc < code_hi) {
        where = "service program";
        in_program = true;
      } else if (pc >= ldso_lo && pc < ldso_lo + 0x30000) {
        where = in_program ? "ld.so: lazy PLT binding" : "ld.so: loading, relocation";
      } else {
        where = "?";
        for (const auto &r : objects)
          if (pc >= r.lo && pc < r.hi) where = r.name;
        if (!in_program) where += " (initialisers)";
      }
      ++c.parts[where];
      continue;
    }
    if (line.compare(0, 12, "start_code  ") == 0) code_lo = hex(line.substr(12));
    if (line.compare(0, 12, "end_code    ") == 0) code_hi = hex(line.substr(12));
    if (line.compare(0, 12, "entry       ") == 0) ldso_lo = hex(line.substr(12)) - ldso_entry;
    if (line.find(" epoll_wait(") != std::string::npos || line.find(" epoll_pwait(") != std::string::npos) {
      c.total = n;
      break;
    }
    // "PID openat(AT_FDCWD,"path",...) = FD" and "PID mmap2(addr,len,PROT_EXEC...,flags,FD,off) = ADDR"
    size_t q = line.find(" openat(AT_FDCWD,\"");
    if (q != std::string::npos) {
      size_t e = line.find('"', q + 18);
      size_t r = line.rfind(" = ");
      if (e != std::string::npos && r != std::string::npos && line[r + 3] != '-')
        fd_path[line.substr(r + 3)] = line.substr(q + 18, e - q - 18);
      continue;
    }
    // With "page" logging the result of mmap2 may come lines later (" = ADDR").
    q = line.find(" mmap2(");
    if (q != std::string::npos && line.find("PROT_EXEC") != std::string::npos) pending_mmap = line.substr(q);
    size_t r = line.rfind(" = 0x");
    if (!pending_mmap.empty() && r != std::string::npos) {
      std::vector<std::string> f;
      size_t open = pending_mmap.find('('), close_p = pending_mmap.find(')');
      std::string args = pending_mmap.substr(open + 1, close_p - open - 1);
      for (size_t s = 0, e; s <= args.size(); s = e + 1) {
        e = args.find(',', s);
        if (e == std::string::npos) e = args.size();
        f.push_back(args.substr(s, e - s));
      }
      if (f.size() == 6 && fd_path.count(f[4])) {
        unsigned long lo = hex(line.substr(r + 5));
        objects.push_back({lo, lo + strtoul(f[1].c_str(), nullptr, 10), base_name(fd_path[f[4]])});
      }
      pending_mmap.clear();
    }
  }
  unlink(log_path);
  return c;
}

// ---- the shared object --------------------------------------------------------

struct ObjectFacts {
  long writable = -1, writable_file = -1, stripped = -1;
  std::map<std::string, long> relocs;
  std::string needed;
};

ObjectFacts object_facts(const std::string &lib, const char *strip) {
  ObjectFacts f;
  if (!exists(lib)) return f;
  std::string ph = run({"readelf", "-lW", lib});
  for (size_t p = 0; (p = ph.find("\n  LOAD", p)) != std::string::npos; ++p) {
    std::string l = ph.substr(p + 1, ph.find('\n', p + 1) - p - 1);
    char type[16], flg[8] = "";
    unsigned long off, va, pa, filesz, memsz;
    if (sscanf(l.c_str(), "%15s %lx %lx %lx %lx %lx %7s", type, &off, &va, &pa, &filesz, &memsz, flg) == 7 &&
        strchr(flg, 'W')) {
      f.writable = static_cast<long>(memsz);
      f.writable_file = static_cast<long>(filesz);
    }
  }
  std::string rel = run({"readelf", "-rW", lib});
  for (size_t p = 0, e; p < rel.size(); p = e + 1) {
    e = rel.find('\n', p);
    if (e == std::string::npos) e = rel.size();
    char offset[32], info[32], type[64];
    if (sscanf(rel.substr(p, e - p).c_str(), "%31s %31s %63s", offset, info, type) == 3 &&
        strncmp(type, "R_", 2) == 0)
      ++f.relocs[type];
  }
  std::string dyn = run({"readelf", "-d", lib});
  for (size_t p = 0; (p = dyn.find("(NEEDED)", p)) != std::string::npos; ++p) {
    size_t a = dyn.find('[', p), b = dyn.find(']', p);
    f.needed += (f.needed.empty() ? "" : " ") + dyn.substr(a + 1, b - a - 1);
  }
  if (strip != nullptr) {
    char tmp[] = "/tmp/kelo-strip-XXXXXX";
    int fd = mkstemp(tmp);
    if (fd >= 0) {
      close(fd);
      bool ok;
      run({strip, "-o", tmp, lib}, {}, ok);
      struct stat st;
      if (ok && stat(tmp, &st) == 0) f.stripped = st.st_size;
      unlink(tmp);
    }
  }
  return f;
}

void print_object(const char *what, const std::string &lib, const ObjectFacts &f) {
  if (f.writable < 0) {
    printf("%s: %s not built\n", what, lib.c_str());
    return;
  }
  printf("%s: %s\n  NEEDED: %s\n  writable segment: %ld bytes (%ld from the file)\n  dynamic relocations:",
         what, lib.c_str(), f.needed.c_str(), f.writable, f.writable_file);
  long total = 0;
  for (const auto &[type, n] : f.relocs) {
    printf(" %s %ld,", type.c_str(), n);
    total += n;
  }
  printf(" total %ld\n", total);
  if (f.stripped >= 0)
    printf("  stripped: %ld bytes (goal %ld or less: %s)\n", f.stripped, kGoalStrippedBytes,
           f.stripped <= kGoalStrippedBytes ? "met" : "NOT met");
}

// ---- Google Benchmark: host start-up time and footprint, side by side -------

std::string g_host_dir;  // build directory of this program (bench/ inside it)

// The three services, by the index of their figures in g_host.
enum Service { kHand, kLib, kSame };
const char *const kServices[3] = {"/bench/startup_service_hand", "/bench/startup_service_lib",
                                  "/bench/startup_service_same"};
Footprint g_host[3];

void BM_StartToFirstIteration(benchmark::State &state, Service which) {
  const std::string service = g_host_dir + kServices[which];
  Footprint fp;
  for (auto _ : state) fp = host_footprint(service, g_host_dir);
  state.counters["Rss_kB"] = static_cast<double>(fp.rss_kb);
  state.counters["Private_Dirty_kB"] = static_cast<double>(fp.dirty_kb);
  g_host[which] = fp;
}

}  // namespace

int main(int argc, char **argv) {
  std::string self = argv[0];
  g_host_dir = self.substr(0, self.rfind('/'));
  g_host_dir = g_host_dir.substr(0, g_host_dir.rfind('/'));
  const char *arm_env = getenv("KELO_BENCH_ARMHF_DIR");
  const std::string arm_dir = arm_env != nullptr && *arm_env ? arm_env : KELO_BENCH_ARMHF_DIR;

  benchmark::Initialize(&argc, argv);
  // A shared object linked moments ago sits in dirty page cache, which
  // smaps reports as Private_Dirty of every process mapping it: write it
  // back first.
  sync();
  const bool sandbox = sandbox_works();
  if (sandbox) {
    benchmark::RegisterBenchmark("StartToFirstIteration/hand_written", BM_StartToFirstIteration, kHand)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(20);
    benchmark::RegisterBenchmark("StartToFirstIteration/hand_written_same_start", BM_StartToFirstIteration,
                                 kSame)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(20);
    benchmark::RegisterBenchmark("StartToFirstIteration/library", BM_StartToFirstIteration, kLib)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(20);
    benchmark::RunSpecifiedBenchmarks();
  } else {
    printf("start-up: skipped, unshare -rmn is not permitted here (no private namespace for the services)\n");
  }
  benchmark::Shutdown();

  printf("\n---- start-up and footprint: library against hand-written (libev + json-c) ----\n");
  if (sandbox && g_host[kHand].dirty_kb >= 0 && g_host[kLib].dirty_kb >= 0) {
    const long diff = g_host[kLib].dirty_kb - g_host[kHand].dirty_kb;
    printf(
        "host Private_Dirty: hand-written %ld kB, library %ld kB, difference %+ld kB (goal +%ld kB or less: "
        "%s)\n",
        g_host[kHand].dirty_kb, g_host[kLib].dirty_kb, diff, kGoalDirtyKb,
        diff <= kGoalDirtyKb ? "met" : "NOT met");
    printf("host Rss:           hand-written %ld kB, library %ld kB\n", g_host[kHand].rss_kb,
           g_host[kLib].rss_kb);
    if (g_host[kSame].dirty_kb >= 0)
      printf("host, hand-written doing the library's start-up: Private_Dirty %ld kB, Rss %ld kB\n",
             g_host[kSame].dirty_kb, g_host[kSame].rss_kb);
  }

  const std::string arm_lib = arm_dir + "/libkelo_util.so.0";
  const bool arm_tools = have("qemu-arm-static") && have("arm-linux-gnueabihf-gcc") && exists(kArmLdso);
  if (!arm_tools) {
    printf(
        "armhf instructions: skipped, the armhf tool chain (arm-linux-gnueabihf-gcc, qemu-user-static, "
        "the armhf libraries) is not installed\n");
  } else if (!exists(arm_dir + "/bench/startup_service_lib")) {
    printf("armhf instructions: skipped, %s has no armhf build of the services (make bench builds it)\n",
           arm_dir.c_str());
  } else if (!sandbox) {
    printf("armhf instructions: skipped, no private namespace for the services\n");
  } else {
    Count hand = armhf_count(arm_dir + "/bench/startup_service_hand", arm_dir);
    Count same = armhf_count(arm_dir + "/bench/startup_service_same", arm_dir);
    Count lib = armhf_count(arm_dir + "/bench/startup_service_lib", arm_dir);
    if (hand.total <= 0 || same.total <= 0 || lib.total <= 0) {
      printf(
          "armhf instructions: the qemu log had no first loop iteration (hand %ld, same %ld, library %ld)\n",
          hand.total, same.total, lib.total);
    } else {
      const double ratio = static_cast<double>(lib.total) / static_cast<double>(same.total);
      printf(
          "armhf instructions to the first loop iteration:\n"
          "  library %ld; hand-written doing the same start-up %ld: ratio %.3f (goal %.2f or less: %s)\n"
          "  the smallest hand-written service %ld (no region, environment or announcement text): ratio "
          "%.3f\n",
          lib.total, same.total, ratio, kGoalRatio, ratio <= kGoalRatio ? "met" : "NOT met", hand.total,
          static_cast<double>(lib.total) / static_cast<double>(hand.total));
      Count warm = armhf_count(arm_dir + "/bench/startup_service_lib", arm_dir, true);
      Count warm_same = armhf_count(arm_dir + "/bench/startup_service_same", arm_dir, true);
      if (warm.total > 0 && warm_same.total > 0)
        printf(
            "  with the log-control region already there (any start but the first after boot): "
            "library %ld, same start-up by hand %ld, ratio %.3f\n",
            warm.total, warm_same.total,
            static_cast<double>(warm.total) / static_cast<double>(warm_same.total));
      std::vector<std::string> keys;
      for (const auto &[k, v] : lib.parts) keys.push_back(k);
      for (const Count *c : {&same, &hand})
        for (const auto &[k, v] : c->parts)
          if (std::find(keys.begin(), keys.end(), k) == keys.end()) keys.push_back(k);
      std::sort(keys.begin(), keys.end(), [&](const std::string &a, const std::string &b) {
        return lib.parts[a] + same.parts[a] > lib.parts[b] + same.parts[b];
      });
      printf("  %-40s %12s %12s %12s\n", "where (armhf, under qemu)", "smallest", "same start", "library");
      for (const auto &k : keys)
        printf("  %-40s %12ld %12ld %12ld\n", k.c_str(), hand.parts[k], same.parts[k], lib.parts[k]);
    }
  }

  print_object("host shared object", g_host_dir + "/libkelo_util.so.0",
               object_facts(g_host_dir + "/libkelo_util.so.0", nullptr));
  if (arm_tools)
    print_object("armhf shared object", arm_lib, object_facts(arm_lib, "arm-linux-gnueabihf-strip"));
  return 0;
}
