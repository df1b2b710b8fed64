/* demo_service: the smallest complete service, to copy from.
 *
 * It shows the usual skeleton of a service on the camera:
 *   - an application descriptor with an option table and a method table,
 *   - app_init (logging, options, RPC client), app_run until SIGTERM or
 *     SIGINT, app_fini at exit,
 *   - methods the agent can call, a call of its own to the agent,
 *   - a periodic "_async.stat" statistics message.
 *
 *   demo_service --name NAME [--interval SECONDS] [--font TTF] [-v ...]
 *
 * Try it on a PC with the agent simulator:
 *   build/release/tools/kelo-agent            (in one terminal)
 *   KELO_LOG_FILE=- build/release/examples/demo_service --name demo -v
 * then type "list", "call demo.echo {\"x\":1}" or "call demo.time" at the agent.
 * On a PC add --font /usr/share/fonts/truetype/dejavu/DejaVuSans.ttf for
 * "call demo.osd" (the camera's font path does not exist there).
 */
#include <errno.h>
#include <ev.h>
#include <getopt.h>
#include <json-c/json.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <kelo/app.h>
#include <kelo/encoding.h>
#include <kelo/file.h>
#include <kelo/log.h>
#include <kelo/md5.h>
#include <kelo/osd.h>
#include <kelo/otrpc.h>

/* ---- options ---------------------------------------------------------------
 * Each store callback writes through `dest` into the service's own variables;
 * app_init parses a temporary copy of the table, so keep nothing else in it. */
static int32_t interval = 5;   /* seconds between statistics messages */
static int32_t verbose = 0;    /* -v -v ... */
static char *name = NULL;      /* --name, required */
static char *font_path = NULL; /* --font: a TrueType file instead of the camera's */
static int32_t echo_count = 0;

/* The parser marks a required option as present only when its own store
 * callback says so: it never sets `seen` for named options itself. So a
 * required option needs a callback like this one, or the parser reports it
 * missing (and exits 127) even when it was given. */
static void store_name(opt_record *rec, const char *arg, void *dest) {
  opt_store_string(rec, arg, dest);
  rec->seen = 1;
}

/* opt_store_int takes atoi's word for it ("5s" is 5, "soon" is 0); this one
 * stores -1 for anything but a plain number, and main() refuses it. */
static void store_seconds(opt_record *rec, const char *arg, void *dest) {
  (void)rec;
  char *end = NULL;
  errno = 0;
  long v = strtol(arg, &end, 10);
  *(int32_t *)dest = (errno == 0 && end != arg && *end == '\0' && v > 0 && v <= 3600) ? (int32_t)v : -1;
}

/* An OPT_OPTARG option given without a value hands its store callback NULL,
 * which opt_store_int and opt_store_string would dereference: this table
 * offers no such option (opt_inc_int ignores the value and would be safe). */
static opt_record options[] = {
    {"name", 'n', OPT_REQUIRED, &name, store_name, "Name reported in the statistics.", 0},
    {"interval", 'i', OPT_ARG, &interval, store_seconds, "Seconds between statistics, 1-3600 (default 5).",
     0},
    {"font", 'f', OPT_ARG, &font_path, opt_store_string,
     "TrueType font for demo.osd (default: the camera's).", 0},
    {"verbose", 'v', OPT_NOARG, &verbose, opt_inc_int, "More log lines; repeat for more.", 0},
    {NULL, 0, 0, NULL, NULL, NULL, 0} /* terminator; --help is added by the library */
};

/* app_init parses the command line but carries on after an unknown option or
 * a missing argument (getopt has printed why, and the options after it were
 * not read). A service that must not run half-configured checks the line
 * first, against a copy of its table whose records store nothing; --help is
 * let through for app_init to answer, and app_init checks required options. */
static int command_line_ok(int argc, char **argv) {
  opt_record check[sizeof options / sizeof options[0] + 1];
  size_t n = 0;
  for (; options[n].long_name != NULL || options[n].short_name != 0 || options[n].store != NULL; n++) {
    check[n] = options[n];
    check[n].store = NULL;
    if ((check[n].type & 3) == OPT_REQUIRED) check[n].type = OPT_ARG;
  }
  check[n++] = (opt_record){"help", 'h', OPT_NOARG, NULL, NULL, NULL, 0};
  check[n] = (opt_record){NULL, 0, 0, NULL, NULL, NULL, 0};
  int parsed = opt_parse(argc, argv, check);
  int first_extra = optind;
  optind = 0; /* app_init scans the line again from the start */
  if (parsed != 0) {
    fprintf(stderr, "%s: bad command line (see --help)\n", argv[0]);
    return 0;
  }
  if (first_extra < argc) {
    fprintf(stderr, "%s: unexpected argument \"%s\" (see --help)\n", argv[0], argv[first_extra]);
    return 0;
  }
  return 1;
}

/* ---- methods ----------------------------------------------------------------
 * A handler gets the request's "params" and a reply object that already holds
 * the request's "id" (reply is NULL for a notification without "id"). Its
 * result decides what is sent: 0 -> "result": ["OK"], OTRPC_RET_SEND_REPLY ->
 * the reply object as filled here, OTRPC_RET_NO_REPLY -> nothing now (keep a
 * reference with json_object_get and send it later), any other value ->
 * "error": {"code": value}. Handlers run on the loop thread. */

/* demo.echo: answers with the params it was given, as "result". */
static int demo_echo(void *arg, json_object *params, json_object *reply) {
  (void)arg;
  echo_count++;
  if (reply == NULL) return 0; /* a notification: nothing to answer */
  /* The reply takes its own reference; the request still owns params. */
  json_object_object_add(reply, "result", json_object_get(params));
  return OTRPC_RET_SEND_REPLY;
}

/* demo.time: answers with the current time. */
static int demo_time(void *arg, json_object *params, json_object *reply) {
  (void)arg;
  (void)params;
  if (reply == NULL) return 0;
  time_t now = time(NULL);
  struct tm tm;
  char text[32];
  gmtime_r(&now, &tm);
  strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  json_object *result = json_object_new_object();
  json_object_object_add(result, "time", json_object_new_int64((int64_t)now));
  json_object_object_add(result, "utc", json_object_new_string(text));
  json_object_object_add(reply, "result", result);
  return OTRPC_RET_SEND_REPLY;
}

/* demo.osd: draws a time stamp (params "text", default the current time, and
 * "size", 16 or 48) as NV12, the way video services overlay it, and answers
 * with its size and the MD5 of the planes. With --font the font file was read
 * at start-up and the stamp is drawn from those bytes, otherwise Ascii2yuv
 * reads the camera's font (an error code on a PC, where it is missing). */
static unsigned char *font_data = NULL;
static size_t font_len = 0;

static int load_font(const char *path) {
  uint32_t size = dir_usage(path); /* bytes, for a regular file */
  font_data = size > 0 ? malloc(size) : NULL;
  if (font_data == NULL || file_get_contents(path, font_data, size, FILE_LOCK_SH) != (ssize_t)size) return -1;
  font_len = size;
  return 0;
}

static unsigned char *render_stamp(const char *text, int pixel_height, int *w, int *h) {
  if (font_data == NULL) return Ascii2yuv(text, w, h, pixel_height, 1); /* flip 1: upright */
  /* What Ascii2yuv does, from the font bytes in memory: coverage on the
   * library's canvas, then the ARGB1555 bitmap top-down, then NV12 with flip 1. */
  osd_canvas_size(pixel_height, w, h);
  size_t pixels = (size_t)*w * (size_t)*h;
  unsigned char *coverage = malloc(pixels);
  uint16_t *bitmap = malloc(pixels * sizeof *bitmap);
  unsigned char *yuv = NULL;
  if (coverage != NULL && bitmap != NULL &&
      osd_render_text(font_data, font_len, 0, coverage, (float)pixel_height, *w, *h, text) >= 0) {
    osd_coverage_to_bitmap1555(coverage, *w, *h, 0, bitmap);
    yuv = Bitmap1555ToYUV((const unsigned char *)bitmap, *w, *h, 1);
  }
  free(coverage);
  free(bitmap);
  return yuv;
}

static int demo_osd(void *arg, json_object *params, json_object *reply) {
  (void)arg;
  char text[64];
  json_object *given = NULL, *size = NULL;
  if (json_object_object_get_ex(params, "text", &given) && json_object_is_type(given, json_type_string)) {
    snprintf(text, sizeof text, "%s", json_object_get_string(given));
  } else {
    time_t now = time(NULL);
    struct tm tm;
    strftime(text, sizeof text, "%Y:%m:%d %H:%M:%S", localtime_r(&now, &tm));
  }
  int pixel_height = json_object_object_get_ex(params, "size", &size) ? json_object_get_int(size) : 16;
  if (pixel_height != 16 && pixel_height != 48) return -EINVAL;
  int w = 0, h = 0;
  unsigned char *yuv = render_stamp(text, pixel_height, &w, &h);
  if (yuv == NULL) return -1;
  unsigned int bytes = (unsigned int)(w * h * 3 / 2);
  unsigned char digest[16];
  char md5[33];
  MD5_CTX ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, yuv, bytes);
  MD5Final(&ctx, digest);
  hex_stringify(digest, sizeof digest, md5, sizeof md5);
  free(yuv); /* a video service would blend it into the frame here */
  if (reply == NULL) return 0;
  json_object *result = json_object_new_object();
  json_object_object_add(result, "text", json_object_new_string(text));
  json_object_object_add(result, "width", json_object_new_int(w));
  json_object_object_add(result, "height", json_object_new_int(h));
  json_object_object_add(result, "bytes", json_object_new_int((int)bytes));
  json_object_object_add(result, "md5", json_object_new_string(md5));
  json_object_object_add(reply, "result", result);
  return OTRPC_RET_SEND_REPLY;
}

static const otrpc_method methods[] = {
    {"demo.echo", demo_echo, NULL, 0},
    {"demo.time", demo_time, NULL, 0},
    {"demo.osd", demo_osd, NULL, 0},
    {NULL, NULL, NULL, 0} /* terminator */
};

static app_desc app = {
    .options = options,
    .facility = 0,      /* 0: LOG_USER */
    .name = "",         /* empty: the kernel's name of the thread (the program name) */
    .methods = methods, /* non-NULL switches the RPC client on */
};

/* ---- a call to the agent ------------------------------------------------------
 * otrpc_call sends a request and hands the reply (the whole message) to the
 * callback; NULL means no reply came within 5 seconds (noticed at a later call). */
static int on_ping_reply(void *arg, json_object *message) {
  (void)arg;
  if (message == NULL)
    log_warning("agent.ping: no reply");
  else
    log_info("agent.ping replied: %s", json_object_to_json_string_ext(message, 0));
  return 0;
}

static void ping_agent(void) {
  json_object *msg = otrpc_create_message("agent.ping");
  if (msg == NULL) return;
  json_object *params = NULL;
  if (json_object_object_get_ex(msg, "params", &params))
    json_object_object_add(params, "name", json_object_new_string(name));
  otrpc_call(msg, on_ping_reply, NULL);
  json_object_put(msg); /* sending copied the text */
}

/* A state hook sees every change of the connection to the agent. It is linked
 * before app_init so that it also sees a connection made inside app_init. The
 * library announces the methods again by itself at every connection, and
 * unlinks every hook when the client stops (app_fini). */
static int on_state(void *arg, int new_state, int old_state) {
  (void)arg;
  (void)old_state;
  if (new_state == OTCONN_CONNECTED) {
    log_notice("connected to the agent");
    ping_agent();
  }
  return 0; /* non-zero would hide the change from the hooks after this one */
}
static otrpc_state_hook state_hook = {NULL, on_state, NULL, NULL};

/* ---- statistics ----------------------------------------------------------------
 * "_async.stat" carries "model" and "fw_ver"; add entries to its params. */
static void on_stat_timer(struct ev_loop *loop, ev_timer *w, int revents) {
  (void)loop;
  (void)w;
  (void)revents;
  json_object *params = NULL;
  json_object *msg = _otrpc_create_stat_msg(&params); /* params is borrowed */
  if (msg == NULL) return;
  json_object_object_add(params, "name", json_object_new_string(name));
  json_object_object_add(params, "echo_count", json_object_new_int(echo_count));
  otrpc_send(msg);
  json_object_put(msg);
  if (verbose > 0) log_debug("statistics sent");
}

int main(int argc, char **argv) {
  if (!command_line_ok(argc, argv)) return 2;
  otrpc_state_hook_add(&state_hook);
  app_init(&app, argc, argv); /* exits for --help, or when --name is missing */
  if (interval < 0) {
    fprintf(stderr, "%s: --interval takes whole seconds, 1 to 3600\n", argv[0]);
    return 2;
  }
  if (font_path != NULL && load_font(font_path) != 0) {
    fprintf(stderr, "%s: cannot read the font %s\n", argv[0], font_path);
    return 2;
  }

  log_info("%s started as \"%s\", statistics every %d s, verbosity %d", app.name, name, interval, verbose);

  /* SIGTERM (systemd, kill) and SIGINT (Ctrl-C) end app_run; main then
   * returns and app_fini runs at exit. Without this either signal would kill
   * the service before it could release anything. */
  app_break_on_signals();

  ev_timer stat_timer;
  ev_timer_init(&stat_timer, on_stat_timer, interval, interval);
  ev_timer_start(ev_default_loop(0), &stat_timer);

  app_run(); /* until app_break */

  ev_timer_stop(ev_default_loop(0), &stat_timer);
  log_info("%s stopping", app.name);
  free(name);
  free(font_path);
  free(font_data);
  return 0; /* app_fini runs at exit */
}
