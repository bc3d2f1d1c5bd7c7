/* A C host of the subscription manager: configures a device, subscribes to a
 * feed, syncs, and prints the downloads' progress until they are done, with the
 * host's descriptor in the program's own poll() loop.
 *
 *   sync_example SERVER_URL DATA_FOLDER [FEED]
 *
 * Build: cc sync_example.c $(pkg-config --cflags --libs zsm) */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <zolvani/subscription/zsm.h>

static int answered = 0, failed = 0;

static void on_result(void* what, const zsm_error* error, const char* json) {
  answered = 1;
  if (error) {
    failed = 1;
    fprintf(stderr, "%s failed: %s %lld: %s\n", (const char*)what, zsm_error_domain(error),
            (long long)zsm_error_code(error), zsm_error_description(error));
  } else {
    printf("%s: %s\n", (const char*)what, json ? json : "done");
  }
}

static void on_event(void* user, int kind, const char* json) {
  (void)user;
  if (kind == ZSM_EVENT_DOWNLOAD_PROGRESS || kind == ZSM_EVENT_DOWNLOAD_FINISHED) {
    const char* id = strstr(json, "\"asset_id\":\"");
    const char* fraction = strstr(json, "\"fraction\":");
    const char* state = strstr(json, "\"state\":\"");
    printf("  %-16.*s %5.1f%%  %.*s\n", id ? (int)strcspn(id + 12, "\"") : 1, id ? id + 12 : "?",
           fraction ? 100.0 * atof(fraction + 11) : 0.0, state ? (int)strcspn(state + 9, "\"") : 0,
           state ? state + 9 : "");
  } else {
    printf("  %s %s\n", zsm_event_name(kind), json);
  }
}

/* Runs the host until the operation started last has answered. */
static int wait_answer(zsm_host* host) {
  struct pollfd p = {zsm_host_fd(host), POLLIN, 0};
  answered = 0;
  while (!answered) {
    poll(&p, 1, 1000); /* the program's own loop: wake when the host has work */
    zsm_host_poll(host, 0);
  }
  return !failed;
}

static int check(int status, zsm_error* error) {
  if (status != 0) {
    fprintf(stderr, "error: %s %lld: %s\n", zsm_error_domain(error),
            (long long)zsm_error_code(error), zsm_error_description(error));
    zsm_error_free(error);
  }
  return status == 0;
}

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s SERVER_URL DATA_FOLDER [FEED]\n", argv[0]);
    return 2;
  }
  const char* feed = argc > 3 ? argv[3] : "morning-news";
  zsm_error* error = NULL;
  zsm_config* config = zsm_config_new();
  const char* settings[][2] = {{"server_url", argv[1]},   {"data_folder", argv[2]},
                               {"user", "demo"},          {"key", "demo-public-key"},
                               {"secret", "demo-secret"}, {"background_launch", "true"}};
  for (size_t i = 0; i < sizeof settings / sizeof settings[0]; ++i)
    if (!check(zsm_config_set(config, settings[i][0], settings[i][1], &error), error)) return 1;
  zsm_host* host = NULL;
  int ok = check(zsm_host_create(config, &host, &error), error);
  zsm_config_free(config);
  if (!ok || !check(zsm_host_start(host, &error), error)) return 1;
  zsm_host_set_event_callback(host, on_event, NULL, NULL);

  /* A new device catches up on the last week instead of starting from now. */
  zsm_host_set_last_sync(host, (double)time(NULL) - 7 * 24 * 3600.0, NULL);
  ok = check(zsm_host_subscribe_with_rules(host, feed, 2, 1, -1, on_result, "subscribe", &error),
             error) &&
       wait_answer(host);
  ok = ok && check(zsm_host_sync(host, 1, on_result, "sync", &error), error) && wait_answer(host);

  int64_t pending = 1;
  for (int i = 0; ok && i < 1200 && pending > 0; ++i) { /* two minutes at most */
    zsm_host_poll(host, 100);
    ok = check(zsm_host_pending_downloads(host, &pending, &error), error);
  }
  char* items = NULL;
  if (ok && check(zsm_host_items(host, NULL, &items, &error), error)) {
    printf("items: %s\n", items);
    zsm_free(items);
  }
  zsm_host_close(host);
  if (pending > 0) fprintf(stderr, "downloads did not finish\n");
  return ok && pending == 0 ? 0 : 1;
}
