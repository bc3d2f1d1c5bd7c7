/* zsm.h: the C interface of the Zolvani subscription manager.
 *
 * A stable C99 interface over the subscription manager, the reference download
 * engine and the default platform, for hosts written in any language that can
 * call C (Kotlin through JNI, Swift, Python, Rust, Go, Node add-ons, ...). It is
 * what the command-line host `zsm` does, as a library: one host object keeps a
 * device's data folder (configuration, user defaults and the engine's store and
 * downloads) and offers every host-facing operation of the manager.
 *
 * Link with `pkg-config --cflags --libs zsm`, or in CMake
 * `find_package(ZolvaniClientSubscriptionManager)` and `zolvani::zsm`.
 *
 * Conventions
 * -----------
 * - Opaque handles: zsm_config, zsm_host, zsm_error. Each has its own free
 *   function; passing NULL to a free function is allowed and does nothing.
 * - Functions that can fail return 0 on success and -1 on failure. When their
 *   last argument `error` is not NULL, a failure stores a new zsm_error there
 *   (free it with zsm_error_free); on success *error is left untouched.
 * - Every pointer argument is checked: a NULL where one is required fails with
 *   the domain ZSM_ERROR_DOMAIN and the code ZSM_ERROR_ARGUMENT; nothing crashes.
 * - Errors carry (domain, code, description). The library's own errors keep
 *   the library's exact texts: domain "ZolvaniSubscriptionManager" with the
 *   codes -1 to -5 or the server's response code, "ZolvaniReferenceEngine" for
 *   the download engine, "ZolvaniTransport.curl" for the network; this
 *   interface's own errors use ZSM_ERROR_DOMAIN ("zsm", the same domain and
 *   codes as the command-line host's errors).
 * - Structured data (feeds, items, settings, status, events) is UTF-8 JSON
 *   text. Text handed to a callback belongs to the library and is valid until
 *   the callback returns; text returned through a `char** json` argument
 *   belongs to the caller, who frees it with zsm_free.
 * - No C++ exception ever leaves a function of this interface; an unexpected
 *   failure inside becomes an error of code ZSM_ERROR_INTERNAL.
 *
 * Threads
 * -------
 * Callbacks (results of asynchronous operations and events) run only inside
 * zsm_host_poll, on the thread that calls it: the thread that drives the host.
 * One thread at a time may call zsm_host_poll on a host. zsm_host_fd gives a
 * descriptor that becomes readable when work waits, so that a host can watch it
 * in its own event loop (epoll, poll, Android's Looper, a GUI loop) and call
 * zsm_host_poll(host, 0) when it is readable.
 * Unless a function says otherwise, it may be called from any thread, also
 * from inside a callback; zsm_host_poll and zsm_host_close may not be called
 * from inside a callback (they fail with ZSM_ERROR_STATE instead).
 * zsm_host_close must not run while another thread uses the same host.
 * Different hosts are independent; a data folder must be used by one host at a
 * time (one zsm_host, or one `zsm` command).
 */
#ifndef ZOLVANI_SUBSCRIPTION_ZSM_H
#define ZOLVANI_SUBSCRIPTION_ZSM_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define ZSM_C_API __attribute__((visibility("default")))
#else
#define ZSM_C_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Version ---------------------------------------------------------------- */

/* The library's version text, "MAJOR.MINOR.PATCH". Static storage; any thread. */
ZSM_C_API const char* zsm_version(void);

/* ---- Errors and memory -------------------------------------------------------- */

/* The domain of the errors that this interface makes itself. */
#define ZSM_ERROR_DOMAIN "zsm"
/* The library's own domain, and the engine's and the network's. */
#define ZSM_MANAGER_ERROR_DOMAIN "ZolvaniSubscriptionManager"
#define ZSM_ENGINE_ERROR_DOMAIN "ZolvaniReferenceEngine"
#define ZSM_TRANSPORT_ERROR_DOMAIN "ZolvaniTransport.curl"

/* Codes in ZSM_ERROR_DOMAIN. */
enum {
  ZSM_ERROR_ARGUMENT = 1,       /* a NULL, unknown or out-of-range argument */
  ZSM_ERROR_NOT_CONFIGURED = 2, /* the configuration lacks a server, user, key or secret */
  ZSM_ERROR_FILE = 3,           /* the data folder could not be made or used */
  ZSM_ERROR_SERVER = 8,         /* the server did not accept what was asked of it */
  ZSM_ERROR_STATE = 9,          /* not started yet, started already, or called from a callback */
  ZSM_ERROR_INTERNAL = 10       /* an unexpected failure inside the library */
};

typedef struct zsm_error zsm_error;

/* The parts of an error. NULL gives "", 0 and "". The texts live as long as the
 * error. Any thread. */
ZSM_C_API const char* zsm_error_domain(const zsm_error* error);
ZSM_C_API int64_t zsm_error_code(const zsm_error* error);
ZSM_C_API const char* zsm_error_description(const zsm_error* error);
/* A copy of an error (for keeping one a callback received); NULL for NULL. */
ZSM_C_API zsm_error* zsm_error_copy(const zsm_error* error);
ZSM_C_API void zsm_error_free(zsm_error* error);

/* Frees text that the library returned through a `char**` argument. */
ZSM_C_API void zsm_free(void* text);

/* ---- Configuration ----------------------------------------------------------------- */

typedef struct zsm_config zsm_config;

/* A new, empty configuration; NULL only when memory ran out. */
ZSM_C_API zsm_config* zsm_config_new(void);
ZSM_C_API void zsm_config_free(zsm_config* config);

/* Sets one setting of the configuration by name; the value is text:
 *   "data_folder"        folder of the device's files (created when missing); required
 *   "server_url"         the content server, http:// or https://; required
 *   "user", "key", "secret"   the account; required
 *   "device_id"          the device's identifier; a new UUID, kept in the data
 *                        folder's user defaults, when not set
 *   "parallel_transfers" downloads at once, 1 to 16 (default 2)
 *   "log_level"          log lines delivered as ZSM_EVENT_LOG events: "none"
 *                        (default), "error", "warning", "info", "debug" or 0 to 4
 *   "background_launch"  "true": start() does no server work of its own, as
 *                        after a launch in the background (what `zsm` does);
 *                        "false" (default): start() validates the server and syncs
 *   "free_space_margin"  bytes the engine keeps free beside each download
 * An unknown name or a value that does not read fails with ZSM_ERROR_ARGUMENT.
 * Not thread-safe for one configuration. */
ZSM_C_API int zsm_config_set(zsm_config* config, const char* name, const char* value,
                             zsm_error** error);

/* ---- Host -------------------------------------------------------------------------- */

typedef struct zsm_host zsm_host;

/* Makes a host over a copy of the configuration; it checks the configuration
 * and makes the data folder, but starts nothing. */
ZSM_C_API int zsm_host_create(const zsm_config* config, zsm_host** host, zsm_error** error);

/* Opens the engine's store, starts the downloads and the manager (whose
 * start-up validates the server and syncs unless "background_launch" is set).
 * Once per host; the other host operations need a started host
 * (ZSM_ERROR_STATE before). */
ZSM_C_API int zsm_host_start(zsm_host* host, zsm_error** error);

/* Stops the downloads (partial files stay for the next start), drops the
 * callbacks not yet delivered (they are never called) and frees the host.
 * NULL does nothing. Fails (returns -1 and frees nothing) when called from
 * inside a callback of this host. Not while another thread uses the host. */
ZSM_C_API int zsm_host_close(zsm_host* host);

/* ---- Driving the host ---------------------------------------------------------------- */

/* Runs the work that waits (server replies, notifications, callbacks), first
 * waiting up to `timeout_ms` milliseconds for some to be ready: 0 does not wait,
 * a negative value waits until there is some. Returns the number of tasks run
 * (each callback is one), or -1 for a NULL host or a call from a callback.
 * One thread at a time per host: the driving thread. */
ZSM_C_API int zsm_host_poll(zsm_host* host, int timeout_ms);

/* A descriptor that is readable while work waits for zsm_host_poll (including
 * timers that fell due). Watch it for reading only; do not read or close it. It
 * stays readable until zsm_host_poll has run the work. -1 for NULL. */
ZSM_C_API int zsm_host_fd(const zsm_host* host);

/* Makes a zsm_host_poll that waits return (with at least 1). Any thread. */
ZSM_C_API int zsm_host_wakeup(zsm_host* host, zsm_error** error);

/* ---- Events -------------------------------------------------------------------------- */

typedef enum zsm_event_kind {
  ZSM_EVENT_ASSET_ADDED = 1,       /* {"assets": [{"uuid", "asset_id", "description"}]} */
  ZSM_EVENT_ASSET_DEFERRED = 2,    /* same shape: created, held back while the feed is full */
  ZSM_EVENT_ASSET_DELETED = 3,     /* {"uuids": [...]}: the assets are gone already */
  ZSM_EVENT_SYNC_FINISHED = 4,     /* {"last_sync": seconds since 1970} */
  ZSM_EVENT_STATUS_CHANGED = 5,    /* {"status": n, "name": "offline|started|receiving|errors"} */
  ZSM_EVENT_DOWNLOAD_PROGRESS = 6, /* an item (see zsm_host_items) while it downloads */
  ZSM_EVENT_DOWNLOAD_FINISHED = 7, /* an item whose state became "complete" or "failed" */
  ZSM_EVENT_LOG = 8                /* {"level": n, "message": "..."} up to "log_level" */
} zsm_event_kind;

/* The event's name ("asset-added", "asset-deferred", "asset-deleted",
 * "sync-finished", "status-changed", "download-progress", "download-finished",
 * "log"); "unknown" otherwise. Static storage; any thread. */
ZSM_C_API const char* zsm_event_name(int kind);

/* Receives events; `json` is valid until the callback returns. */
typedef void (*zsm_event_fn)(void* user_data, int kind, const char* json);

/* Sets the event callback (NULL: no events). Events happen from zsm_host_start
 * on; they wait for zsm_host_poll and are delivered in the order they happened.
 * Allowed before zsm_host_start. */
ZSM_C_API int zsm_host_set_event_callback(zsm_host* host, zsm_event_fn callback, void* user_data,
                                          zsm_error** error);

/* ---- Asynchronous operations ----------------------------------------------------------- */

/* Receives the outcome of one asynchronous operation, exactly once, inside
 * zsm_host_poll: `error` NULL and `json` the result on success; `error` set (and
 * `json` NULL, or what the operation says) on failure. Both are valid until the
 * callback returns (keep an error with zsm_error_copy). */
typedef void (*zsm_result_fn)(void* user_data, const zsm_error* error, const char* json);

/* Each operation below returns 0 when it was started: its callback (which may
 * be NULL, for no callback) then runs once. It returns -1 when refused at once
 * (bad arguments, host not started); the callback is then never called. */

/* Asks the server whether it accepts this device's configuration.
 * Result: {"accepted": true}. */
ZSM_C_API int zsm_host_validate(zsm_host* host, zsm_result_fn callback, void* user_data,
                                zsm_error** error);

/* Subscribes to a feed with the global settings as its rules.
 * Result: {"feed", "rules": {"max_items", "autodelete", "max_bitrate"}}; items the
 * rules delete are announced as ZSM_EVENT_ASSET_DELETED. */
ZSM_C_API int zsm_host_subscribe(zsm_host* host, const char* feed, zsm_result_fn callback,
                                 void* user_data, zsm_error** error);

/* Subscribes with rules; a negative value takes that rule from the global
 * settings. The rules hold until the next sync: the server is the authority on
 * a feed's rules. Same result as zsm_host_subscribe. */
ZSM_C_API int zsm_host_subscribe_with_rules(zsm_host* host, const char* feed, int32_t max_items,
                                            int autodelete, int32_t max_bitrate,
                                            zsm_result_fn callback, void* user_data,
                                            zsm_error** error);

/* Leaves one feed; its items are deleted (ZSM_EVENT_ASSET_DELETED).
 * Result: {"unsubscribed": [feed]}. */
ZSM_C_API int zsm_host_unsubscribe(zsm_host* host, const char* feed, zsm_result_fn callback,
                                   void* user_data, zsm_error** error);

/* Leaves every feed the server lists. Result: {"unsubscribed": [...]}. */
ZSM_C_API int zsm_host_unsubscribe_all(zsm_host* host, zsm_result_fn callback, void* user_data,
                                       zsm_error** error);

/* The server's list of this device's subscriptions. Result: ["feed", ...]. */
ZSM_C_API int zsm_host_subscriptions(zsm_host* host, zsm_result_fn callback, void* user_data,
                                     zsm_error** error);

/* A catalog sync: new items are queued for download, retention rules applied.
 * Without `force` a sync already running refuses a second one (error
 * ZSM_ERROR_STATE). Result: {"subscriptions": [...], "last_sync": seconds}. */
ZSM_C_API int zsm_host_sync(zsm_host* host, int force, zsm_result_fn callback, void* user_data,
                            zsm_error** error);

/* Delivers a remote push notice the way the system would, `payload_json` a JSON
 * object such as {"subscription_sync": true}. Result: {"accepted": bool,
 * "answer": 0 new data | 1 no data | 2 failed | null}; a payload that asks for no
 * sync is not accepted and answers at once with a null answer. */
ZSM_C_API int zsm_host_push_notice(zsm_host* host, const char* payload_json, zsm_result_fn callback,
                                   void* user_data, zsm_error** error);

/* A background fetch the way the system would wake the application.
 * Result: {"answer": 0|1|2, "answer_name": "new-data|no-data|failed"}. */
ZSM_C_API int zsm_host_background_fetch(zsm_host* host, zsm_result_fn callback, void* user_data,
                                        zsm_error** error);

/* Announces an item to the server (the push update): `item_json` an object
 * with "downloadURL" or "streamURL" and optionally "title", "desc",
 * "contentSize", "contentSizeIsEstimate", "duration", "downloadEnabled",
 * "contentType". Result: {"item": {...}}. */
ZSM_C_API int zsm_host_publish(zsm_host* host, const char* item_json, zsm_result_fn callback,
                               void* user_data, zsm_error** error);

/* ---- Immediate operations ---------------------------------------------------------------- */

/* The global settings: {"max-items", "autodelete", "max-bitrate", "last-sync",
 * "verbose"}. */
ZSM_C_API int zsm_host_settings(zsm_host* host, char** json, zsm_error** error);
/* Maximum items per feed for new subscriptions, 0 (no limit) or more. */
ZSM_C_API int zsm_host_set_max_items(zsm_host* host, int32_t value, zsm_error** error);
ZSM_C_API int zsm_host_set_autodelete(zsm_host* host, int value, zsm_error** error);
/* Maximum bit rate for new subscriptions, 0 (no cap) or more. */
ZSM_C_API int zsm_host_set_max_bitrate(zsm_host* host, int32_t value, zsm_error** error);
/* Moves the last-sync date (seconds since 1970): items published after it
 * count as new at the next sync. A finite number. */
ZSM_C_API int zsm_host_set_last_sync(zsm_host* host, double seconds, zsm_error** error);
/* Trace lines of request and reply bodies in the log. */
ZSM_C_API int zsm_host_set_verbose(zsm_host* host, int value, zsm_error** error);
/* The last-sync date in seconds since 1970. A new device counts its first
 * start as its last sync; "synced" in zsm_host_status tells whether one ran. */
ZSM_C_API int zsm_host_last_sync(zsm_host* host, double* seconds, zsm_error** error);

/* {"server", "user", "device_id", "status", "status_name", "started", "in_sync",
 * "synced", "last_sync" (null before the first sync), "assets": {state: count},
 * "feeds": [...]}. */
ZSM_C_API int zsm_host_status(zsm_host* host, char** json, zsm_error** error);

/* The feeds tracked on the device: [{"feed", "max_items", "autodelete",
 * "max_bitrate", "rules_from", "items": [...], "deferred": [...]}]. */
ZSM_C_API int zsm_host_feeds(zsm_host* host, char** json, zsm_error** error);

/* The device's items, oldest first, of one feed or of all (`feed` NULL):
 * [{"uuid", "asset_id", "description", "url", "stream", "state" (created,
 * queued, downloading, complete, failed), "fraction", "bytes_done",
 * "bytes_total", "created", "completed", "file", "feed", "deferred", "error"}]. */
ZSM_C_API int zsm_host_items(zsm_host* host, const char* feed, char** json, zsm_error** error);

/* The identifiers of the items held back because their feed was full: [...]. */
ZSM_C_API int zsm_host_deferred(zsm_host* host, char** json, zsm_error** error);

/* How many downloads are queued or running. */
ZSM_C_API int zsm_host_pending_downloads(zsm_host* host, int64_t* count, zsm_error** error);

/* Brings the library view up to date and describes it: symbolic links to the
 * finished downloads named by feed and title, <data_folder>/library/<feed>/
 * <title>.<ext> (direct items in library/_direct/, a stream as a folder with
 * its index.m3u8). Links whose downloads are gone are removed; the engine's
 * files stay where they are, and other files in the folder are left alone.
 * {"library": folder, "entries": [{"link", "target", "feed" (null for a
 * direct item), "uuid"}]}. Call it after downloads finish (the command-line
 * host does after each sync). */
ZSM_C_API int zsm_host_update_library(zsm_host* host, char** json, zsm_error** error);

#ifdef __cplusplus
}
#endif

#endif /* ZOLVANI_SUBSCRIPTION_ZSM_H */
