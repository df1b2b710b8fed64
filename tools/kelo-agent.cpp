// kelo-agent: a stand-in for the camera's local agent, for trying services on
// a PC. It listens on 127.0.0.1:54320 (the port every service's RPC client
// connects to), prints every JSON message it receives as one time-stamped
// line, keeps each connection's registered methods, calls them on request,
// answers the services' own calls, and runs commands from a person at a
// terminal or from a script (wait/expect make scripted sessions checkable).
// At a terminal the command line has editing and history (libedit), kept in
// ~/.kelo-agent_history.
//
//   kelo-agent [--listen ADDR] [--port N] [--script FILE] [--timeout MS] [--pretty]
//
// Commands (one per line; "help" lists them). Exit status: 0, or 1 when an
// expectation failed or a command was rejected, 2 when it cannot listen.
#include <arpa/inet.h>
#include <errno.h>
#include <ev.h>
#include <fcntl.h>
#include <getopt.h>
#include <json-c/json.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#ifdef KELO_HAVE_EDITLINE
#include <editline/readline.h>
#endif

#include <deque>
#include <map>
#include <string>
#include <vector>

namespace {

// ---- output ---------------------------------------------------------------

std::string stamp() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tm;
  localtime_r(&tv.tv_sec, &tm);
  char buf[32];
  snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03ld", tm.tm_hour, tm.tm_min, tm.tm_sec,
           static_cast<long>(tv.tv_usec / 1000));
  return buf;
}

bool editing = false;  // libedit owns the terminal's input line

void out(const std::string &text) {
#ifdef KELO_HAVE_EDITLINE
  if (editing) fputs("\r\033[K", stdout);  // the prompt and the half-typed line go, and come back below
#endif
  printf("%s %s\n", stamp().c_str(), text.c_str());
  fflush(stdout);
#ifdef KELO_HAVE_EDITLINE
  if (editing) rl_forced_update_display();
#endif
}

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...) {
  va_list ap;
  va_start(ap, f);
  char *s = nullptr;
  int n = vasprintf(&s, f, ap);
  va_end(ap);
  std::string r = n >= 0 ? std::string(s, static_cast<size_t>(n)) : std::string();
  free(s);
  return r;
}

bool pretty = false;  // --pretty: messages printed indented, over several lines

std::string to_text(json_object *o) { return json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN); }
// A message as the transcript shows it after "<-" or "->"; expectations match
// the plain text.
std::string shown(json_object *o) {
  if (!pretty) return " " + to_text(o);
  return std::string("\n") +
         json_object_to_json_string_ext(o, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED);
}

// Parses a whole JSON text; NULL (and why) when it is not exactly one value.
json_object *parse_json(const std::string &text, std::string &why) {
  json_tokener *tok = json_tokener_new();
  json_object *o = json_tokener_parse_ex(tok, text.c_str(), -1);
  if (o == nullptr) {
    enum json_tokener_error e = json_tokener_get_error(tok);
    why = e == json_tokener_continue ? "incomplete JSON" : json_tokener_error_desc(e);
  } else if (json_tokener_get_parse_end(tok) < text.size() &&
             text.find_first_not_of(" \t\r\n", json_tokener_get_parse_end(tok)) != std::string::npos) {
    json_object_put(o);
    o = nullptr;
    why = "trailing text after the JSON value";
  }
  json_tokener_free(tok);
  return o;
}

// ---- connections ------------------------------------------------------------

struct Conn {
  int id = 0;
  int fd = -1;
  std::string peer;
  ev_io io{};
  json_tokener *tok = nullptr;
  std::string pending_out;
  std::vector<std::string> methods;  // in order of registration
};

enum class Wait { None, Sleep, Expect, Relisten };

struct ReplyRule {
  enum Kind { Answer, None } kind = Answer;
  std::string member;  // "result" or "error"
  std::string value;   // its JSON text
};

struct Agent {
  struct ev_loop *loop = nullptr;
  std::string listen_addr = "127.0.0.1";
  int port = 54320;
  int lfd = -1;
  ev_io listen_io{};
  std::map<int, Conn *> conns;  // by id, ascending
  int next_conn = 1;
  int next_call = 1;
  std::map<int, std::string> calls;          // outstanding call id -> method
  std::map<std::string, ReplyRule> replies;  // per method of the services' calls

  std::deque<std::string> commands;
  bool input_done = false;
  bool echo = false;  // echo commands into the transcript (not for a person typing)
  ev_io stdin_io{};
  std::string stdin_buf;
  ev_idle pump_idle{};
  ev_timer timer{};
  ev_signal sigint{}, sigterm{};
  Wait waiting = Wait::None;
  std::string expect_text;
  double expect_timeout = 5.0;

  std::vector<std::string> events;  // received lines and connection events
  size_t cursor = 0;                // expect searches from here
  int failed = 0, rejected = 0;
  bool quitting = false;
};

Agent A;

void schedule_pump() {
  if (!ev_is_active(&A.pump_idle)) ev_idle_start(A.loop, &A.pump_idle);
}

// Records a line that expectations may match, and prints it (or display).
void event(const std::string &text, const std::string &display = std::string()) {
  out(display.empty() ? text : display);
  A.events.push_back(text);
  if (A.waiting == Wait::Expect) schedule_pump();  // checked outside the caller's callback
}

void conn_close(Conn *c, const char *why) {
  ev_io_stop(A.loop, &c->io);
  close(c->fd);
  json_tokener_free(c->tok);
  event(fmt("#%d closed (%s)", c->id, why));
  A.conns.erase(c->id);
  delete c;
}

// Writes what is pending, as much as the socket takes now.
void conn_flush(Conn *c) {
  while (!c->pending_out.empty()) {
    ssize_t n = send(c->fd, c->pending_out.data(), c->pending_out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n > 0) {
      c->pending_out.erase(0, static_cast<size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      break;
    } else {
      // Closed through the read side (recv then sees the end), never in the
      // middle of the caller, which may still be using the connection.
      c->pending_out.clear();
      shutdown(c->fd, SHUT_RDWR);
      break;
    }
  }
  int want = EV_READ | (c->pending_out.empty() ? 0 : EV_WRITE);
  if (c->io.events != want) {
    ev_io_stop(A.loop, &c->io);
    ev_io_set(&c->io, c->fd, want);
    ev_io_start(A.loop, &c->io);
  }
}

void conn_send(Conn *c, const std::string &text) {
  out(fmt("#%d -> %s", c->id, text.c_str()));
  c->pending_out += text;
  conn_flush(c);
}

void send_json(Conn *c, json_object *o) {
  out(fmt("#%d ->%s", c->id, shown(o).c_str()));
  c->pending_out += to_text(o);
  conn_flush(c);
}

bool is_protocol(const char *method) {
  return strcmp(method, "register") == 0 || strcmp(method, "unregister") == 0 ||
         strncmp(method, "_async.", 7) == 0;
}

void handle_message(Conn *c, json_object *msg) {
  event(fmt("#%d <- %s", c->id, to_text(msg).c_str()), fmt("#%d <-%s", c->id, shown(msg).c_str()));
  json_object *m = nullptr, *id = nullptr, *key = nullptr;
  json_object_object_get_ex(msg, "id", &id);
  if (!json_object_object_get_ex(msg, "method", &m) || !json_object_is_type(m, json_type_string)) {
    if (id != nullptr) A.calls.erase(json_object_get_int(id));
    return;
  }
  const char *method = json_object_get_string(m);
  if (json_object_object_get_ex(msg, "key", &key) && json_object_is_type(key, json_type_string)) {
    std::string k = json_object_get_string(key);
    auto &ms = c->methods;
    if (strcmp(method, "register") == 0) {
      bool known = false;
      for (auto &x : ms) known = known || x == k;
      if (!known) ms.push_back(k);
    } else if (strcmp(method, "unregister") == 0) {
      for (auto it = ms.begin(); it != ms.end(); ++it)
        if (*it == k) {
          ms.erase(it);
          break;
        }
    }
  }
  if (id == nullptr) return;  // a notification
  auto rule = A.replies.find(method);
  if (rule == A.replies.end() && is_protocol(method)) return;  // not answered by default
  if (rule != A.replies.end() && rule->second.kind == ReplyRule::None) return;

  json_object *reply = json_object_new_object();
  json_object_object_add(reply, "id", json_object_get(id));
  if (rule != A.replies.end()) {
    std::string why;
    json_object_object_add(reply, rule->second.member.c_str(), parse_json(rule->second.value, why));
  } else {
    json_object *result = json_object_new_array();
    json_object_array_add(result, json_object_new_string("OK"));
    json_object_object_add(reply, "result", result);
  }
  send_json(c, reply);
  json_object_put(reply);
}

void on_conn(struct ev_loop *, ev_io *w, int revents) {
  Conn *c = static_cast<Conn *>(w->data);
  if (revents & EV_WRITE) conn_flush(c);
  if (!(revents & EV_READ)) return;
  char buf[4096];
  ssize_t n = recv(c->fd, buf, sizeof buf, MSG_DONTWAIT);
  if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) return;
  if (n <= 0) {
    conn_close(c, n == 0 ? "by the service" : "read failed");
    return;
  }
  size_t off = 0, len = static_cast<size_t>(n);
  bool reported = false;  // one note per run of bad bytes, not one per byte
  while (off < len) {
    json_object *o = json_tokener_parse_ex(c->tok, buf + off, static_cast<int>(len - off));
    enum json_tokener_error e = json_tokener_get_error(c->tok);
    size_t used = json_tokener_get_parse_end(c->tok);
    if (o != nullptr) {
      handle_message(c, o);
      json_object_put(o);
      reported = false;
    } else if (e == json_tokener_continue) {
      break;  // a value continues in the next read
    } else {
      if (!reported) out(fmt("#%d malformed input skipped: %s", c->id, json_tokener_error_desc(e)));
      reported = true;
      json_tokener_reset(c->tok);
    }
    off += used > 0 ? used : 1;
  }
}

void on_accept(struct ev_loop *loop, ev_io *w, int) {
  sockaddr_in peer{};
  socklen_t len = sizeof peer;
  int fd = accept4(w->fd, reinterpret_cast<sockaddr *>(&peer), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) return;
  Conn *c = new Conn;
  c->id = A.next_conn++;
  c->fd = fd;
  char addr[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &peer.sin_addr, addr, sizeof addr);
  c->peer = fmt("%s:%d", addr, ntohs(peer.sin_port));
  c->tok = json_tokener_new();
  ev_io_init(&c->io, on_conn, fd, EV_READ);
  c->io.data = c;
  ev_io_start(loop, &c->io);
  A.conns[c->id] = c;
  event(fmt("#%d connected from %s", c->id, c->peer.c_str()));
}

bool start_listening() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(A.port));
  if (inet_pton(AF_INET, A.listen_addr.c_str(), &a.sin_addr) != 1) {
    out(fmt("error: bad listen address %s", A.listen_addr.c_str()));
    close(fd);
    return false;
  }
  if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0 || listen(fd, 16) < 0) {
    out(fmt("error: cannot listen on %s:%d: %s", A.listen_addr.c_str(), A.port, strerror(errno)));
    close(fd);
    return false;
  }
  // Port 0 takes a free port; a restart listens on the same one again.
  socklen_t alen = sizeof a;
  if (A.port == 0 && getsockname(fd, reinterpret_cast<sockaddr *>(&a), &alen) == 0)
    A.port = ntohs(a.sin_port);
  A.lfd = fd;
  ev_io_init(&A.listen_io, on_accept, fd, EV_READ);
  ev_io_start(A.loop, &A.listen_io);
  out(fmt("agent listening on %s:%d", A.listen_addr.c_str(), A.port));
  return true;
}

void stop_listening() {
  if (A.lfd < 0) return;
  ev_io_stop(A.loop, &A.listen_io);
  close(A.lfd);
  A.lfd = -1;
}

// ---- commands ---------------------------------------------------------------

const char kHelp[] =
    "commands:\n"
    "  list                          connections and their registered methods\n"
    "  call [#N] METHOD [JSON]       request to the service that registered METHOD\n"
    "                                (or to connection N); params default to {}\n"
    "  notify [#N] METHOD [JSON]     the same without an id (no reply expected)\n"
    "  send [#N] TEXT                raw text to connection N (default: the newest)\n"
    "  reply METHOD JSON|none|default  how the services' calls of METHOD are answered:\n"
    "                                JSON is the \"result\"; {\"error\":{\"code\":-5}} or\n"
    "                                {\"result\":...} alone give that member as it is\n"
    "                                (default: {\"result\":[\"OK\"]})\n"
    "  wait MS                       pause the commands for MS milliseconds\n"
    "  expect TEXT                   wait for a received line containing TEXT\n"
    "  timeout MS                    how long expect waits (default 5000)\n"
    "  say TEXT                      print TEXT into the transcript\n"
    "  restart [MS]                  drop every connection and the listener, listen\n"
    "                                again (after MS milliseconds)\n"
    "  quit                          close everything and exit\n"
    "  # ...                         a comment\n";

void reject(const std::string &why) {
  ++A.rejected;
  out("error: " + why);
}

bool parse_ms(const std::string &s, long &ms) {
  if (s.empty()) return false;
  char *end = nullptr;
  errno = 0;
  ms = strtol(s.c_str(), &end, 10);
  return errno == 0 && *end == '\0' && ms >= 0 && ms <= 3600000;
}

std::string trim(const std::string &s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

// Splits "word rest" once.
void split(const std::string &s, std::string &word, std::string &rest) {
  size_t sp = s.find_first_of(" \t");
  word = s.substr(0, sp);
  rest = sp == std::string::npos ? "" : trim(s.substr(sp));
}

// An optional leading "#N" picks a connection; returns false (and rejects)
// when it names none.
bool take_target(std::string &args, Conn *&c) {
  c = nullptr;
  if (args.empty() || args[0] != '#') return true;
  std::string word, rest;
  split(args, word, rest);
  long n = 0;
  if (!parse_ms(word.substr(1), n) || A.conns.count(static_cast<int>(n)) == 0) {
    reject(fmt("no connection %s", word.c_str()));
    return false;
  }
  c = A.conns[static_cast<int>(n)];
  args = rest;
  return true;
}

Conn *owner_of(const std::string &method) {
  Conn *found = nullptr;  // the newest connection that registered it
  for (auto &[id, c] : A.conns)
    for (auto &m : c->methods)
      if (m == method) found = c;
  return found;
}

void cmd_call(std::string args, bool with_id) {
  Conn *c = nullptr;
  if (!take_target(args, c)) return;
  std::string method, params_text;
  split(args, method, params_text);
  if (method.empty())
    return reject(with_id ? "usage: call [#N] METHOD [JSON]" : "usage: notify [#N] METHOD [JSON]");
  if (c == nullptr) c = owner_of(method);
  if (c == nullptr) return reject(fmt("no connected service has registered %s", method.c_str()));
  json_object *params = nullptr;
  if (params_text.empty()) {
    params = json_object_new_object();
  } else {
    std::string why;
    params = parse_json(params_text, why);
    if (params == nullptr)
      return reject(fmt("params are not JSON (%s): %s", why.c_str(), params_text.c_str()));
  }
  json_object *msg = json_object_new_object();
  json_object_object_add(msg, "method", json_object_new_string(method.c_str()));
  if (with_id) {
    int id = A.next_call++;
    A.calls[id] = method;
    json_object_object_add(msg, "id", json_object_new_int(id));
  }
  json_object_object_add(msg, "params", params);
  send_json(c, msg);
  json_object_put(msg);
}

void cmd_send(std::string args) {
  Conn *c = nullptr;
  if (!take_target(args, c)) return;
  if (c == nullptr && !A.conns.empty()) c = A.conns.rbegin()->second;
  if (c == nullptr) return reject("no connection to send to");
  if (args.empty()) return reject("usage: send [#N] TEXT");
  conn_send(c, args);
}

void cmd_reply(const std::string &args) {
  std::string method, what;
  split(args, method, what);
  if (method.empty() || what.empty()) return reject("usage: reply METHOD JSON|none|default");
  if (what == "default") {
    A.replies.erase(method);
  } else if (what == "none") {
    A.replies[method] = {ReplyRule::None, "", ""};
  } else {
    std::string why;
    json_object *o = parse_json(what, why);
    if (o == nullptr) return reject(fmt("reply is not JSON (%s): %s", why.c_str(), what.c_str()));
    // An object of one member "error" or "result" is that member of the reply.
    ReplyRule rule{ReplyRule::Answer, "result", to_text(o)};
    if (json_object_is_type(o, json_type_object) && json_object_object_length(o) == 1) {
      json_object_object_foreach(o, key, val) {
        if (strcmp(key, "error") == 0 || strcmp(key, "result") == 0)
          rule = {ReplyRule::Answer, key, val != nullptr ? to_text(val) : "null"};
      }
    }
    A.replies[method] = rule;
    json_object_put(o);
  }
  out(fmt("replies to %s: %s", method.c_str(), what.c_str()));
}

void cmd_list() {
  if (A.conns.empty()) out("no connections");
  for (auto &[id, c] : A.conns) {
    std::string ms;
    for (auto &m : c->methods) ms += " " + m;
    out(fmt("#%d %s methods:%s", id, c->peer.c_str(), ms.empty() ? " (none)" : ms.c_str()));
  }
}

void arm(Wait w, double seconds) {
  A.waiting = w;
  ev_timer_stop(A.loop, &A.timer);
  ev_timer_set(&A.timer, seconds, 0.0);
  ev_timer_start(A.loop, &A.timer);
}

void quit() {
  A.quitting = true;
  // The listener first: a service reconnecting at once must be refused, not
  // left in the backlog of a socket about to close.
  stop_listening();
  while (!A.conns.empty()) conn_close(A.conns.begin()->second, "by the agent");
  ev_break(A.loop, EVBREAK_ALL);
}

void run_command(const std::string &line) {
  std::string cmd, args;
  split(trim(line), cmd, args);
  if (cmd.empty() || cmd[0] == '#') return;
  if (A.echo) out("> " + trim(line));
  long ms = 0;
  if (cmd == "help") {
    fputs(kHelp, stdout);
    fflush(stdout);
  } else if (cmd == "list") {
    cmd_list();
  } else if (cmd == "call" || cmd == "notify") {
    cmd_call(args, cmd == "call");
  } else if (cmd == "send") {
    cmd_send(args);
  } else if (cmd == "reply") {
    cmd_reply(args);
  } else if (cmd == "wait") {
    if (!parse_ms(args, ms)) return reject("usage: wait MS (0..3600000)");
    arm(Wait::Sleep, static_cast<double>(ms) / 1000.0);
  } else if (cmd == "timeout") {
    if (!parse_ms(args, ms)) return reject("usage: timeout MS (0..3600000)");
    A.expect_timeout = static_cast<double>(ms) / 1000.0;
  } else if (cmd == "expect") {
    if (args.empty()) return reject("usage: expect TEXT");
    A.expect_text = args;
    arm(Wait::Expect, A.expect_timeout);
    schedule_pump();  // it may have arrived already
  } else if (cmd == "say" || cmd == "echo") {
    out("-- " + args);
  } else if (cmd == "restart") {
    if (!args.empty() && !parse_ms(args, ms)) return reject("usage: restart [MS]");
    out("agent restarting");
    stop_listening();  // first, as in quit()
    while (!A.conns.empty()) conn_close(A.conns.begin()->second, "by the agent");
    if (ms > 0) {
      arm(Wait::Relisten, static_cast<double>(ms) / 1000.0);
    } else if (!start_listening()) {
      ++A.failed;
    }
  } else if (cmd == "quit" || cmd == "exit") {
    quit();
  } else {
    reject(fmt("unknown command \"%s\" (try \"help\")", cmd.c_str()));
  }
}

// Runs queued commands until one has to wait; quits when input has ended.
void pump() {
  if (A.quitting) return;
  if (A.waiting == Wait::Expect) {
    for (size_t i = A.cursor; i < A.events.size(); ++i) {
      if (A.events[i].find(A.expect_text) == std::string::npos) continue;
      A.cursor = i + 1;
      A.waiting = Wait::None;
      ev_timer_stop(A.loop, &A.timer);
      out("expect ok: " + A.expect_text);
      break;
    }
  }
  while (A.waiting == Wait::None && !A.quitting && !A.commands.empty()) {
    std::string line = A.commands.front();
    A.commands.pop_front();
    run_command(line);
  }
  if (A.waiting == Wait::None && !A.quitting && A.commands.empty() && A.input_done) quit();
}

void on_pump(struct ev_loop *loop, ev_idle *w, int) {
  ev_idle_stop(loop, w);
  pump();
}

void on_timer(struct ev_loop *, ev_timer *, int) {
  Wait w = A.waiting;
  A.waiting = Wait::None;
  if (w == Wait::Expect) {
    ++A.failed;
    out(fmt("expect FAILED (nothing within %.0f ms): %s", A.expect_timeout * 1000, A.expect_text.c_str()));
  } else if (w == Wait::Relisten && !start_listening()) {
    ++A.failed;
  }
  pump();
}

void take_lines(std::string &buf, bool final) {
  size_t nl;
  while ((nl = buf.find('\n')) != std::string::npos) {
    A.commands.push_back(buf.substr(0, nl));
    buf.erase(0, nl + 1);
  }
  if (final && !buf.empty()) {
    A.commands.push_back(buf);
    buf.clear();
  }
}

void on_stdin(struct ev_loop *loop, ev_io *w, int) {
  char buf[4096];
  ssize_t n = read(w->fd, buf, sizeof buf);
  if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (n <= 0) {
    ev_io_stop(loop, w);
    take_lines(A.stdin_buf, true);
    A.input_done = true;
  } else {
    A.stdin_buf.append(buf, static_cast<size_t>(n));
    take_lines(A.stdin_buf, false);
  }
  schedule_pump();
}

#ifdef KELO_HAVE_EDITLINE
// A person at a terminal: libedit reads the line (editing, history) and hands
// each finished one over; other output is printed above the prompt.
std::string history_path;

void on_line(char *line) {
  if (line == nullptr) {  // Ctrl-D
    ev_io_stop(A.loop, &A.stdin_io);
    A.input_done = true;
  } else {
    if (line[0] != '\0') add_history(line);
    A.commands.push_back(line);
    free(line);
  }
  schedule_pump();
}

void on_tty(struct ev_loop *, ev_io *, int) { rl_callback_read_char(); }

void start_editing() {
  const char *home = getenv("HOME");
  if (home != nullptr && home[0] != '\0') history_path = std::string(home) + "/.kelo-agent_history";
  if (!history_path.empty()) read_history(history_path.c_str());
  stifle_history(1000);
  rl_callback_handler_install("agent> ", on_line);
  editing = true;
  ev_io_init(&A.stdin_io, on_tty, 0, EV_READ);
  ev_io_start(A.loop, &A.stdin_io);
}

void stop_editing() {
  if (!editing) return;
  editing = false;
  rl_callback_handler_remove();
  fputs("\r\033[K", stdout);
  fflush(stdout);
  if (!history_path.empty()) write_history(history_path.c_str());
}
#else
void stop_editing() {}  // built without libedit: plain line input
#endif

void on_signal(struct ev_loop *, ev_signal *w, int) {
  out(fmt("agent: signal %d, quitting", w->signum));
  quit();
}

// Reads a whole file (or what a pipe gives until its end); false with errno
// when it cannot be opened or read. A directory is refused (EISDIR) rather
// than read as empty.
bool read_file(const char *path, std::string &into) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  int err = fstat(fd, &st) != 0 ? errno : S_ISDIR(st.st_mode) ? EISDIR : 0;
  char buf[65536];
  for (ssize_t n; err == 0 && (n = read(fd, buf, sizeof buf)) != 0;) {
    if (n > 0)
      into.append(buf, static_cast<size_t>(n));
    else if (errno != EINTR)
      err = errno;
  }
  close(fd);
  errno = err;
  return err == 0;
}

void usage(FILE *to) {
  fputs("usage: kelo-agent [--listen ADDR] [--port N] [--script FILE] [--timeout MS] [--pretty]\n", to);
  fputs("  --port N   the port to listen on (default 54320; 0: any free port)\n", to);
  fputs(
      "  --pretty   print messages indented over several lines (expect still\n"
      "             matches their one-line form)\n",
      to);
  fputs(kHelp, to);
}

}  // namespace

int main(int argc, char **argv) {
  static const struct option longopts[] = {{"listen", required_argument, nullptr, 'l'},
                                           {"port", required_argument, nullptr, 'p'},
                                           {"script", required_argument, nullptr, 's'},
                                           {"timeout", required_argument, nullptr, 't'},
                                           {"pretty", no_argument, nullptr, 'P'},
                                           {"help", no_argument, nullptr, 'h'},
                                           {nullptr, 0, nullptr, 0}};
  const char *script = nullptr;
  int c;
  long v = 0;
  while ((c = getopt_long(argc, argv, "l:p:s:t:h", longopts, nullptr)) != -1) {
    switch (c) {
      case 'l': A.listen_addr = optarg; break;
      case 'p':
        if (!parse_ms(optarg, v) || v > 65535) {
          fprintf(stderr, "kelo-agent: bad port %s\n", optarg);
          return 2;
        }
        A.port = static_cast<int>(v);
        break;
      case 's': script = optarg; break;
      case 't':
        if (!parse_ms(optarg, v)) {
          fprintf(stderr, "kelo-agent: bad timeout %s\n", optarg);
          return 2;
        }
        A.expect_timeout = static_cast<double>(v) / 1000.0;
        break;
      case 'P': pretty = true; break;
      case 'h': usage(stdout); return 0;
      default: usage(stderr); return 2;
    }
  }
  signal(SIGPIPE, SIG_IGN);
  A.loop = ev_default_loop(0);
  ev_idle_init(&A.pump_idle, on_pump);
  ev_timer_init(&A.timer, on_timer, 0.0, 0.0);
  ev_signal_init(&A.sigint, on_signal, SIGINT);
  ev_signal_init(&A.sigterm, on_signal, SIGTERM);
  ev_signal_start(A.loop, &A.sigint);
  ev_signal_start(A.loop, &A.sigterm);

  // Read before listening: a script that cannot be used ends the agent
  // before it takes the port.
  std::string script_text;
  if (script != nullptr && !read_file(script, script_text)) {
    fprintf(stderr, "kelo-agent: cannot read %s: %s\n", script, strerror(errno));
    return 2;
  }

  if (!start_listening()) return 2;

  struct stat st;
  if (script != nullptr) {
    take_lines(script_text, true);
    A.input_done = true;
    A.echo = true;
  } else if (fstat(0, &st) == 0 && S_ISREG(st.st_mode)) {
    std::string text;
    read_file("/dev/stdin", text);
    take_lines(text, true);
    A.input_done = true;
    A.echo = true;
  } else {
#ifdef KELO_HAVE_EDITLINE
    if (isatty(0) && isatty(1)) start_editing();
#endif
    if (!editing) {
      A.echo = !isatty(0);
      ev_io_init(&A.stdin_io, on_stdin, 0, EV_READ);
      ev_io_start(A.loop, &A.stdin_io);
    }
  }
  schedule_pump();
  ev_run(A.loop, 0);
  stop_editing();

  if (A.failed != 0 || A.rejected != 0)
    out(fmt("agent: %d expectation(s) failed, %d command(s) rejected", A.failed, A.rejected));
  return A.failed != 0 || A.rejected != 0 ? 1 : 0;
}
