/* The C interface as a C program sees it: compiled as C99, every function of
 * zsm.h called through the header, with NULL and bad arguments (a clear error,
 * never a crash), and then a device driven against a real zsm-server on
 * loopback: subscribe with rules, sync, downloads to the end with files on
 * disk, the wake entry points, publishing, unsubscribing, and a device whose
 * secret the server refuses.
 *
 * Usage: capi_test ZSM_SERVER_PROGRAM WORK_FOLDER */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "zolvani/subscription/zsm.h"

static int passed = 0, failed = 0;

#define CHECK(cond)                                                            \
  do {                                                                         \
    if (cond) {                                                                \
      ++passed;                                                                \
    } else {                                                                   \
      ++failed;                                                                \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
    }                                                                          \
  } while (0)

/* Checks that `err` is an error of `domain` and `code`, then frees it. */
#define CHECK_ERROR(err, domain, code)                                                   \
  do {                                                                                   \
    CHECK((err) != NULL);                                                                \
    if (err) {                                                                           \
      CHECK(strcmp(zsm_error_domain(err), (domain)) == 0);                               \
      CHECK(zsm_error_code(err) == (code));                                              \
      CHECK(zsm_error_description(err)[0] != '\0');                                      \
      if (strcmp(zsm_error_domain(err), (domain)) != 0 || zsm_error_code(err) != (code)) \
        fprintf(stderr, "  got %s %lld: %s\n", zsm_error_domain(err),                    \
                (long long)zsm_error_code(err), zsm_error_description(err));             \
      zsm_error_free(err);                                                               \
      (err) = NULL;                                                                      \
    }                                                                                    \
  } while (0)

static double now_ms(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
}

/* ---- Results and events ---------------------------------------------------- */

typedef struct {
  int done;
  int calls;
  int failed;
  char domain[64];
  long long code;
  char description[512];
  char* json;
} result_t;

/* While set, result callbacks try to drive and to close their own host. */
static zsm_host* reentry_host = NULL;
static int reentry_poll = 0, reentry_close = 0;

static void on_result(void* user, const zsm_error* error, const char* json) {
  result_t* r = (result_t*)user;
  if (reentry_host) {
    reentry_poll = zsm_host_poll(reentry_host, 0);
    reentry_close = zsm_host_close(reentry_host);
  }
  r->done = 1;
  r->calls++;
  if (error) {
    r->failed = 1;
    snprintf(r->domain, sizeof r->domain, "%s", zsm_error_domain(error));
    r->code = (long long)zsm_error_code(error);
    snprintf(r->description, sizeof r->description, "%s", zsm_error_description(error));
  }
  free(r->json);
  r->json = json ? strdup(json) : NULL;
}

static void reset(result_t* r) {
  free(r->json);
  memset(r, 0, sizeof *r);
}

static int wait_for(zsm_host* host, result_t* r, int timeout_ms) {
  const double deadline = now_ms() + timeout_ms;
  while (!r->done && now_ms() < deadline) zsm_host_poll(host, 100);
  if (!r->done) fprintf(stderr, "  no answer within %d ms\n", timeout_ms);
  if (r->failed) fprintf(stderr, "  failed: %s %lld: %s\n", r->domain, r->code, r->description);
  return r->done;
}

typedef struct {
  int counts[16];
  char last_finished[4096];
  /* Download events that name the item's place, as zsm.h promises: both
   * fields at all, and the feed of a feed item. */
  int with_place;
  int in_news_feed;
} events_t;

static void on_event(void* user, int kind, const char* json) {
  events_t* e = (events_t*)user;
  if (kind > 0 && kind < 16) e->counts[kind]++;
  if (kind == ZSM_EVENT_DOWNLOAD_FINISHED)
    snprintf(e->last_finished, sizeof e->last_finished, "%s", json);
  if (kind == ZSM_EVENT_DOWNLOAD_FINISHED || kind == ZSM_EVENT_DOWNLOAD_PROGRESS) {
    if (strstr(json, "\"feed\":") && strstr(json, "\"deferred\":")) e->with_place++;
    if (strstr(json, "\"feed\":\"morning-news\"") && strstr(json, "\"deferred\":false"))
      e->in_news_feed++;
  }
}

/* The value of "key":"..." in `json` (no escapes in the values looked for). */
static int json_string(const char* json, const char* key, char* out, size_t size) {
  char pattern[128];
  snprintf(pattern, sizeof pattern, "\"%s\":\"", key);
  const char* at = json ? strstr(json, pattern) : NULL;
  if (!at) return 0;
  at += strlen(pattern);
  const char* end = strchr(at, '"');
  if (!end || (size_t)(end - at) >= size) return 0;
  memcpy(out, at, (size_t)(end - at));
  out[end - at] = '\0';
  return 1;
}

/* ---- Arguments ----------------------------------------------------------------- */

static void test_arguments(const char* work) {
  zsm_error* err = NULL;
  char* json = NULL;
  double seconds = 0;
  int64_t count = 0;

  CHECK(strlen(zsm_version()) >= 5);
  CHECK(strcmp(zsm_error_domain(NULL), "") == 0);
  CHECK(zsm_error_code(NULL) == 0);
  CHECK(strcmp(zsm_error_description(NULL), "") == 0);
  CHECK(zsm_error_copy(NULL) == NULL);
  zsm_error_free(NULL);
  zsm_free(NULL);
  zsm_config_free(NULL);
  CHECK(strcmp(zsm_event_name(ZSM_EVENT_ASSET_DELETED), "asset-deleted") == 0);
  CHECK(strcmp(zsm_event_name(99), "unknown") == 0);

  /* Configuration: NULLs, unknown names, values that do not read. */
  CHECK(zsm_config_set(NULL, "user", "u", &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  zsm_config* config = zsm_config_new();
  CHECK(config != NULL);
  CHECK(zsm_config_set(config, NULL, "u", &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_config_set(config, "user", NULL, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_config_set(config, "colour", "blue", NULL) == -1); /* no error wanted */
  const char* refused[][2] = {{"colour", "blue"},          {"server_url", "ftp://x"},
                              {"parallel_transfers", "0"}, {"parallel_transfers", "2x"},
                              {"log_level", "loud"},       {"background_launch", "maybe"},
                              {"free_space_margin", "-1"}, {"data_folder", ""}};
  for (size_t i = 0; i < sizeof refused / sizeof refused[0]; ++i) {
    CHECK(zsm_config_set(config, refused[i][0], refused[i][1], &err) == -1);
    CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  }
  CHECK(zsm_config_set(config, "log_level", "debug", &err) == 0);
  CHECK(zsm_config_set(config, "parallel_transfers", "3", &err) == 0);
  CHECK(err == NULL);

  /* A host needs a whole configuration. */
  zsm_host* host = (zsm_host*)1;
  CHECK(zsm_host_create(NULL, &host, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_create(config, NULL, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_create(config, &host, &err) == -1);
  CHECK(host == NULL);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_NOT_CONFIGURED);
  char folder[1024];
  snprintf(folder, sizeof folder, "%s/unstarted", work);
  CHECK(zsm_config_set(config, "data_folder", folder, &err) == 0);
  CHECK(zsm_config_set(config, "server_url", "http://127.0.0.1:9/", &err) == 0);
  CHECK(zsm_config_set(config, "user", "u", &err) == 0);
  CHECK(zsm_host_create(config, &host, &err) == -1);
  CHECK(err != NULL && strstr(zsm_error_description(err), "key") != NULL);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_NOT_CONFIGURED);
  CHECK(zsm_config_set(config, "key", "k", &err) == 0);
  CHECK(zsm_config_set(config, "secret", "s", &err) == 0);
  CHECK(zsm_host_create(config, &host, &err) == 0);
  zsm_config_free(config);
  CHECK(host != NULL);
  if (!host) return;

  /* Every operation on a NULL host, and on a host not started. */
  zsm_host* hosts[2] = {NULL, host};
  for (int i = 0; i < 2; ++i) {
    zsm_host* h = hosts[i];
    const int64_t code = h ? ZSM_ERROR_STATE : ZSM_ERROR_ARGUMENT;
    result_t r;
    memset(&r, 0, sizeof r);
#define REFUSED(call)                         \
  do {                                        \
    CHECK((call) == -1);                      \
    CHECK_ERROR(err, ZSM_ERROR_DOMAIN, code); \
  } while (0)
    REFUSED(zsm_host_wakeup(h, &err));
    REFUSED(zsm_host_validate(h, on_result, &r, &err));
    REFUSED(zsm_host_subscribe(h, "f", on_result, &r, &err));
    REFUSED(zsm_host_subscribe_with_rules(h, "f", 1, 1, 0, on_result, &r, &err));
    REFUSED(zsm_host_unsubscribe(h, "f", on_result, &r, &err));
    REFUSED(zsm_host_unsubscribe_all(h, on_result, &r, &err));
    REFUSED(zsm_host_subscriptions(h, on_result, &r, &err));
    REFUSED(zsm_host_sync(h, 1, on_result, &r, &err));
    REFUSED(zsm_host_push_notice(h, "{}", on_result, &r, &err));
    REFUSED(zsm_host_background_fetch(h, on_result, &r, &err));
    REFUSED(zsm_host_publish(h, "{\"downloadURL\":\"http://x/a.mp4\"}", on_result, &r, &err));
    REFUSED(zsm_host_settings(h, &json, &err));
    REFUSED(zsm_host_set_max_items(h, 1, &err));
    REFUSED(zsm_host_set_autodelete(h, 1, &err));
    REFUSED(zsm_host_set_max_bitrate(h, 1, &err));
    REFUSED(zsm_host_set_last_sync(h, 1.0, &err));
    REFUSED(zsm_host_set_verbose(h, 1, &err));
    REFUSED(zsm_host_last_sync(h, &seconds, &err));
    REFUSED(zsm_host_status(h, &json, &err));
    REFUSED(zsm_host_feeds(h, &json, &err));
    REFUSED(zsm_host_items(h, NULL, &json, &err));
    REFUSED(zsm_host_deferred(h, &json, &err));
    REFUSED(zsm_host_pending_downloads(h, &count, &err));
#undef REFUSED
    CHECK(r.calls == 0); /* a refused operation never calls back */
  }
  CHECK(json == NULL);
  CHECK(zsm_host_start(NULL, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_set_event_callback(NULL, on_event, NULL, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_set_event_callback(host, NULL, NULL, &err) == 0);
  CHECK(zsm_host_poll(NULL, 0) == -1);
  CHECK(zsm_host_poll(host, 0) == 0);
  CHECK(zsm_host_fd(NULL) == -1);
  CHECK(zsm_host_fd(host) >= 0);
  CHECK(zsm_host_close(NULL) == 0);
  CHECK(zsm_host_close(host) == 0);
}

/* ---- Against the server ------------------------------------------------------------ */

typedef struct {
  pid_t pid;
  char url[256];
} server_t;

static int start_server(const char* program, const char* data, server_t* server) {
  int out[2];
  if (pipe(out) != 0) return 0;
  pid_t pid = fork();
  if (pid < 0) return 0;
  if (pid == 0) {
    dup2(out[1], 1);
    close(out[0]);
    close(out[1]);
    execl(program, program, "serve", "--data", data, "--address", "127.0.0.1", "--port", "0",
          "--generate-sample", (char*)NULL);
    _exit(127);
  }
  close(out[1]);
  server->pid = pid;
  char line[512];
  size_t used = 0;
  const double deadline = now_ms() + 30000;
  while (now_ms() < deadline && used + 1 < sizeof line) {
    struct pollfd p = {out[0], POLLIN, 0};
    if (poll(&p, 1, 200) <= 0) continue;
    ssize_t n = read(out[0], line + used, 1);
    if (n <= 0) break;
    if (line[used] == '\n') {
      line[used] = '\0';
      const char* marker = "listening on ";
      char* at = strstr(line, marker);
      close(out[0]);
      if (!at) return 0;
      snprintf(server->url, sizeof server->url, "%s", at + strlen(marker));
      return 1;
    }
    ++used;
  }
  close(out[0]);
  return 0;
}

static void stop_server(server_t* server) {
  if (server->pid <= 0) return;
  kill(server->pid, SIGTERM);
  int status = 0;
  waitpid(server->pid, &status, 0);
  server->pid = 0;
}

static zsm_host* device(const char* work, const char* name, const char* url, const char* secret) {
  zsm_error* err = NULL;
  char folder[1024];
  snprintf(folder, sizeof folder, "%s/%s", work, name);
  zsm_config* config = zsm_config_new();
  const char* settings[][2] = {{"data_folder", folder},    {"server_url", url},
                               {"user", "demo"},           {"key", "demo-public-key"},
                               {"secret", secret},         {"background_launch", "true"},
                               {"free_space_margin", "0"}, {"log_level", "warning"}};
  for (size_t i = 0; i < sizeof settings / sizeof settings[0]; ++i)
    CHECK(zsm_config_set(config, settings[i][0], settings[i][1], &err) == 0);
  zsm_host* host = NULL;
  CHECK(zsm_host_create(config, &host, &err) == 0);
  zsm_config_free(config);
  if (!host) return NULL;
  CHECK(zsm_host_start(host, &err) == 0);
  if (err) {
    fprintf(stderr, "  start: %s\n", zsm_error_description(err));
    zsm_error_free(err);
  }
  return host;
}

static void test_device(const char* work, const char* url) {
  zsm_error* err = NULL;
  char* json = NULL;
  result_t r;
  memset(&r, 0, sizeof r);
  events_t events;
  memset(&events, 0, sizeof events);

  zsm_host* host = device(work, "device", url, "demo-secret");
  if (!host) return;
  CHECK(zsm_host_start(host, &err) == -1); /* once */
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_STATE);
  CHECK(zsm_host_set_event_callback(host, on_event, &events, &err) == 0);

  /* Bad arguments on a started host. */
  CHECK(zsm_host_subscribe(host, NULL, on_result, &r, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_subscribe(host, "", on_result, &r, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_unsubscribe(host, NULL, on_result, &r, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_push_notice(host, NULL, on_result, &r, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_push_notice(host, "[1,2", on_result, &r, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_publish(host, "{\"title\":\"no url\"}", on_result, &r, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_publish(host, NULL, on_result, &r, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_settings(host, NULL, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_last_sync(host, NULL, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_pending_downloads(host, NULL, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_set_max_items(host, -1, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_set_max_bitrate(host, -5, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  CHECK(zsm_host_set_last_sync(host, 1.0 / 0.0, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);

  /* Settings. */
  CHECK(zsm_host_set_max_items(host, 5, &err) == 0);
  CHECK(zsm_host_set_autodelete(host, 1, &err) == 0);
  CHECK(zsm_host_set_max_bitrate(host, 0, &err) == 0);
  CHECK(zsm_host_set_verbose(host, 0, &err) == 0);
  /* The sample was published before this device's first start. */
  CHECK(zsm_host_set_last_sync(host, (double)time(NULL) - 7 * 86400.0, &err) == 0);
  double last = 0;
  CHECK(zsm_host_last_sync(host, &last, &err) == 0 && last < (double)time(NULL) - 86400.0);
  CHECK(zsm_host_settings(host, &json, &err) == 0);
  CHECK(json && strstr(json, "\"max-items\":5") != NULL);
  zsm_free(json);
  json = NULL;

  /* The descriptor is readable while work waits, and no longer once it ran. */
  CHECK(zsm_host_validate(host, on_result, &r, &err) == 0);
  struct pollfd p = {zsm_host_fd(host), POLLIN, 0};
  CHECK(poll(&p, 1, 2000) == 1);
  CHECK(wait_for(host, &r, 15000) && !r.failed);
  CHECK(r.json && strstr(r.json, "\"accepted\":true"));
  zsm_host_poll(host, 0);
  p.revents = 0;
  CHECK(poll(&p, 1, 0) == 0 || zsm_host_poll(host, 0) > 0);
  reset(&r);

  /* A waiting poll returns when woken from elsewhere. */
  CHECK(zsm_host_wakeup(host, &err) == 0);
  CHECK(zsm_host_poll(host, 1000) >= 1);

  /* Subscribe with rules, sync, and follow the downloads to the end. Callbacks
   * may not drive or close their own host. */
  reentry_host = host;
  CHECK(zsm_host_subscribe_with_rules(host, "morning-news", 2, 1, -1, on_result, &r, &err) == 0);
  CHECK(wait_for(host, &r, 15000) && !r.failed);
  CHECK(r.json && strstr(r.json, "\"max_items\":2"));
  CHECK(reentry_poll == -1 && reentry_close == -1);
  reentry_host = NULL;
  reset(&r);
  CHECK(zsm_host_sync(host, 1, on_result, &r, &err) == 0);
  CHECK(wait_for(host, &r, 20000) && !r.failed);
  CHECK(r.json && strstr(r.json, "morning-news"));
  reset(&r);
  int64_t pending = 1;
  const double deadline = now_ms() + 60000;
  while (now_ms() < deadline) {
    zsm_host_poll(host, 100);
    CHECK(zsm_host_pending_downloads(host, &pending, &err) == 0);
    if (pending == 0 && events.counts[ZSM_EVENT_DOWNLOAD_FINISHED] >= 2) break;
  }
  CHECK(pending == 0);
  CHECK(events.counts[ZSM_EVENT_ASSET_ADDED] >= 1);
  CHECK(events.counts[ZSM_EVENT_SYNC_FINISHED] == 1);
  CHECK(events.counts[ZSM_EVENT_STATUS_CHANGED] >= 1);
  CHECK(events.counts[ZSM_EVENT_DOWNLOAD_FINISHED] >= 2);
  CHECK(events.with_place ==
        events.counts[ZSM_EVENT_DOWNLOAD_FINISHED] + events.counts[ZSM_EVENT_DOWNLOAD_PROGRESS]);
  CHECK(events.in_news_feed >= 1);
  /* The library view names the downloads by feed. */
  CHECK(zsm_host_update_library(host, &json, &err) == 0);
  CHECK(json && strstr(json, "/library/morning-news/") != NULL);
  zsm_free(json);
  json = NULL;
  CHECK(zsm_host_update_library(host, NULL, &err) == -1);
  CHECK_ERROR(err, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT);
  char file[2048];
  CHECK(json_string(events.last_finished, "file", file, sizeof file));
  struct stat st;
  CHECK(stat(file, &st) == 0 && st.st_size > 0);

  CHECK(zsm_host_items(host, "morning-news", &json, &err) == 0);
  CHECK(json && strstr(json, "\"state\":\"complete\""));
  zsm_free(json);
  CHECK(zsm_host_items(host, NULL, &json, &err) == 0);
  zsm_free(json);
  CHECK(zsm_host_feeds(host, &json, &err) == 0);
  /* The sync brought the server's rules for the feed, which replace those given. */
  CHECK(json && strstr(json, "\"feed\":\"morning-news\"") &&
        strstr(json, "\"rules_from\":\"server\""));
  zsm_free(json);
  CHECK(zsm_host_deferred(host, &json, &err) == 0);
  CHECK(json && json[0] == '[');
  zsm_free(json);
  CHECK(zsm_host_status(host, &json, &err) == 0);
  CHECK(json && strstr(json, "\"synced\":true") && strstr(json, "\"complete\":"));
  zsm_free(json);
  json = NULL;

  CHECK(zsm_host_subscriptions(host, on_result, &r, &err) == 0);
  CHECK(wait_for(host, &r, 15000) && !r.failed && r.json && strstr(r.json, "morning-news"));
  reset(&r);

  /* The wake entry points. */
  CHECK(zsm_host_push_notice(host, "{\"subscription_sync\": false}", on_result, &r, &err) == 0);
  CHECK(wait_for(host, &r, 5000) && !r.failed && r.json && strstr(r.json, "\"accepted\":false"));
  reset(&r);
  CHECK(zsm_host_background_fetch(host, on_result, &r, &err) == 0);
  CHECK(wait_for(host, &r, 20000) && !r.failed && r.json &&
        strstr(r.json, "\"answer_name\":\"new-data\""));
  reset(&r);

  /* Publishing a direct item for the account. */
  CHECK(zsm_host_publish(host,
                         "{\"title\": \"From C\", \"downloadURL\": "
                         "\"http://127.0.0.1:9/media/from-c.mp4\", \"contentType\": 0}",
                         on_result, &r, &err) == 0);
  CHECK(wait_for(host, &r, 20000) && !r.failed && r.json && strstr(r.json, "From C"));
  reset(&r);

  /* Leaving. */
  CHECK(zsm_host_unsubscribe(host, "morning-news", on_result, &r, &err) == 0);
  CHECK(wait_for(host, &r, 15000) && !r.failed);
  reset(&r);
  CHECK(zsm_host_subscribe(host, "feature-films", on_result, &r, &err) == 0);
  CHECK(wait_for(host, &r, 15000) && !r.failed);
  reset(&r);
  CHECK(zsm_host_unsubscribe_all(host, on_result, &r, &err) == 0);
  CHECK(wait_for(host, &r, 15000) && !r.failed && r.json && strstr(r.json, "feature-films"));
  reset(&r);
  CHECK(zsm_host_subscribe(host, "no-such-feed", on_result, &r, &err) == 0);
  CHECK(wait_for(host, &r, 15000) && r.failed);
  CHECK(strcmp(r.domain, ZSM_MANAGER_ERROR_DOMAIN) == 0 && r.code == 2);
  reset(&r);

  /* Closing with an operation in flight drops its callback. */
  CHECK(zsm_host_sync(host, 1, on_result, &r, &err) == 0);
  CHECK(zsm_host_close(host) == 0);
  CHECK(r.calls == 0);
  CHECK(err == NULL);

  /* A device with the wrong secret: the library's own error and text. */
  zsm_host* stranger = device(work, "stranger", url, "not-the-secret");
  if (stranger) {
    CHECK(zsm_host_validate(stranger, on_result, &r, &err) == 0);
    CHECK(wait_for(stranger, &r, 15000) && r.failed);
    CHECK(strcmp(r.domain, ZSM_MANAGER_ERROR_DOMAIN) == 0 && r.code == -1);
    CHECK(strcmp(r.description, "Failed to authenticate with server using provided credentials.") ==
          0);
    reset(&r);
    zsm_host_close(stranger);
  }
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s ZSM_SERVER_PROGRAM WORK_FOLDER\n", argv[0]);
    return 2;
  }
  char work[1024];
  snprintf(work, sizeof work, "%s/capi-test-%ld", argv[2], (long)getpid());
  mkdir(argv[2], 0700);
  mkdir(work, 0700);
  test_arguments(work);
  char data[1100];
  snprintf(data, sizeof data, "%s/server", work);
  server_t server;
  memset(&server, 0, sizeof server);
  if (!start_server(argv[1], data, &server)) {
    fprintf(stderr, "zsm-server did not start\n");
    ++failed;
  } else {
    test_device(work, server.url);
    stop_server(&server);
  }
  if (failed == 0) {
    char command[1200];
    snprintf(command, sizeof command, "rm -rf '%s'", work);
    if (system(command) != 0) fprintf(stderr, "could not remove %s\n", work);
  } else {
    fprintf(stderr, "files kept in %s\n", work);
  }
  printf("%d passed, %d failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}
