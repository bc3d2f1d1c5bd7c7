"""The Host class: one device's data folder, driven through libzsm."""

from __future__ import annotations

import ctypes
import json
import time
from dataclasses import dataclass
from typing import Any, Callable, Dict, Iterator, List, Optional, Union

from . import _native
from .errors import ArgumentError, OperationTimeout, StateError, ZsmError, error_for

JsonValue = Any

#: Event kinds, as zsm.h numbers them.
EVENT_KINDS = {
    1: "asset-added",
    2: "asset-deferred",
    3: "asset-deleted",
    4: "sync-finished",
    5: "status-changed",
    6: "download-progress",
    7: "download-finished",
    8: "log",
}


@dataclass(frozen=True)
class Event:
    """Something the library announced: ``kind`` is one of EVENT_KINDS' names
    ("asset-added", "download-progress", ...) and ``data`` its JSON document."""

    kind: str
    data: Dict[str, JsonValue]


INT32_MAX = 2**31 - 1


def _int32(name: str, value: Any) -> int:
    """``value`` as a C int32_t the library takes (0 to 2**31 - 1); ctypes would
    silently keep only the low 32 bits of a larger number."""
    if isinstance(value, bool) or not isinstance(value, int):
        raise ArgumentError("zsm", 1, f"{name} must be an integer, not {type(value).__name__}")
    if not 0 <= value <= INT32_MAX:
        raise ArgumentError("zsm", 1, f"{name} must be from 0 to {INT32_MAX}, not {value}")
    return value


def _raise_error(pointer: ctypes.c_void_p) -> None:
    lib = _native.library()
    try:
        error = error_for(lib.zsm_error_domain(pointer).decode(), int(lib.zsm_error_code(pointer)),
                          lib.zsm_error_description(pointer).decode())
    finally:
        lib.zsm_error_free(pointer)
    raise error


def _check(status: int, error: ctypes.c_void_p) -> None:
    if status != 0:
        if error.value:
            _raise_error(error)
        raise ZsmError("zsm", -1, "the call failed without saying why")


class Host:
    """A device: its configuration, the engine's store and downloads in
    ``data_folder``, and the subscription manager over them.

    Operations that talk to the server (``subscribe``, ``sync``, ...) wait for
    their answer and return it, or raise a :class:`~zolvani_subscription.ZsmError`
    subclass; while they wait, events are delivered to the callbacks given to
    :meth:`on_event`. Use the host from one thread; :meth:`fileno` lets an event
    loop (selectors, asyncio's ``add_reader``) call :meth:`poll` when work waits.
    """

    def __init__(self, data_folder: str, server_url: str, user: str, key: str, secret: str, *,
                 device_id: Optional[str] = None, parallel_transfers: int = 2,
                 log_level: Optional[Union[str, int]] = None, background_launch: bool = True,
                 free_space_margin: Optional[int] = None, start: bool = True,
                 timeout: float = 30.0) -> None:
        """Makes the host (and with ``start`` starts it). ``background_launch``
        True starts without server work of its own (the default here, so that the
        caller decides what goes to the server); False validates and syncs at
        start. ``timeout`` is how long operations wait for the server."""
        self._lib = _native.library()
        self._handle: Optional[int] = None
        self._listeners: List[Callable[[Event], None]] = []
        self._queued: List[Event] = []
        self._pending_exception: Optional[BaseException] = None
        self._in_flight: Dict[int, Any] = {}
        self._next_token = 1
        self.timeout = timeout
        settings: Dict[str, Optional[str]] = {
            "data_folder": str(data_folder), "server_url": server_url, "user": user, "key": key,
            "secret": secret, "device_id": device_id,
            "parallel_transfers": str(parallel_transfers),
            "log_level": None if log_level is None else str(log_level),
            "background_launch": "true" if background_launch else "false",
            "free_space_margin": None if free_space_margin is None else str(free_space_margin),
        }
        config = self._lib.zsm_config_new()
        if not config:
            raise MemoryError("zsm_config_new")
        try:
            for name, value in settings.items():
                if value is None:
                    continue
                error = ctypes.c_void_p()
                _check(self._lib.zsm_config_set(config, name.encode(), value.encode(),
                                                ctypes.byref(error)), error)
            handle = ctypes.c_void_p()
            error = ctypes.c_void_p()
            _check(self._lib.zsm_host_create(config, ctypes.byref(handle), ctypes.byref(error)),
                   error)
            self._handle = handle.value
        finally:
            self._lib.zsm_config_free(config)
        self._event_fn = _native.EVENT_FN(self._on_event)
        error = ctypes.c_void_p()
        _check(self._lib.zsm_host_set_event_callback(self._handle, self._event_fn, None,
                                                     ctypes.byref(error)), error)
        if start:
            self.start()

    # --- Lifecycle -----------------------------------------------------------------

    def start(self) -> None:
        """Opens the engine's store, starts the downloads and the manager."""
        error = ctypes.c_void_p()
        _check(self._lib.zsm_host_start(self._live(), ctypes.byref(error)), error)

    def close(self) -> None:
        """Stops the downloads (partial files stay) and frees the host. Twice is fine."""
        if self._handle is not None:
            if self._lib.zsm_host_close(self._handle) != 0:
                raise StateError("zsm", 9, "a host cannot be closed from its own callback")
            self._handle = None
            self._in_flight.clear()

    def __enter__(self) -> "Host":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __del__(self) -> None:
        try:
            self.close()
        except Exception:
            pass

    def _live(self) -> int:
        if self._handle is None:
            raise StateError("zsm", 9, "the host is closed")
        return self._handle

    # --- Driving and events ------------------------------------------------------------

    def fileno(self) -> int:
        """A descriptor that is readable while work waits for :meth:`poll`."""
        return int(self._lib.zsm_host_fd(self._live()))

    def poll(self, timeout: float = 0.0) -> int:
        """Runs waiting work, first waiting up to ``timeout`` seconds for some
        (negative: until there is some). Returns the number of tasks run. An
        exception raised by an event callback is raised here."""
        ran = self._lib.zsm_host_poll(self._live(), int(timeout * 1000))
        if self._pending_exception is not None:
            exc, self._pending_exception = self._pending_exception, None
            raise exc
        if ran < 0:
            raise StateError("zsm", 9, "poll refused (called from a callback of this host?)")
        return ran

    def wakeup(self) -> None:
        """Makes a waiting :meth:`poll` return; may be called from any thread."""
        error = ctypes.c_void_p()
        _check(self._lib.zsm_host_wakeup(self._live(), ctypes.byref(error)), error)

    def on_event(self, callback: Callable[[Event], None]) -> None:
        """Calls ``callback(event)`` for every event, inside :meth:`poll` and the
        waiting operations."""
        self._listeners.append(callback)

    def events(self, timeout: Optional[float] = None) -> Iterator[Event]:
        """Yields events as they happen, driving the host; ends after ``timeout``
        seconds without one (never, for None)."""
        while True:
            if not self._queued:
                deadline = None if timeout is None else time.monotonic() + timeout
                while not self._queued:
                    left = 1.0 if deadline is None else deadline - time.monotonic()
                    if left <= 0:
                        return
                    self.poll(min(left, 1.0))
            yield self._queued.pop(0)

    def _on_event(self, _user: Any, kind: int, text: bytes) -> None:
        try:
            event = Event(EVENT_KINDS.get(kind, "unknown"), json.loads(text.decode()))
            self._queued.append(event)
            if len(self._queued) > 10000:  # nobody reads the iterator
                del self._queued[:5000]
            for listener in list(self._listeners):
                listener(event)
        except BaseException as e:  # raised again by poll()
            if self._pending_exception is None:
                self._pending_exception = e

    # --- Asynchronous operations, waited for -------------------------------------------------

    def _call(self, start: Callable[..., int], *args: Any,
              timeout: Optional[float] = None) -> JsonValue:
        outcome: Dict[str, Any] = {}

        def done(_user: Any, error: Optional[int], text: Optional[bytes]) -> None:
            if error:
                lib = self._lib
                outcome["error"] = error_for(lib.zsm_error_domain(error).decode(),
                                             int(lib.zsm_error_code(error)),
                                             lib.zsm_error_description(error).decode())
            else:
                outcome["value"] = json.loads(text.decode()) if text else None

        callback = _native.RESULT_FN(done)
        token = self._next_token
        self._next_token += 1
        self._in_flight[token] = callback  # alive until called or the host closes
        try:
            error = ctypes.c_void_p()
            _check(start(self._live(), *args, callback, None, ctypes.byref(error)), error)
            limit = self.timeout if timeout is None else timeout
            deadline = time.monotonic() + limit
            while not outcome:
                left = deadline - time.monotonic()
                if left <= 0:
                    raise OperationTimeout("zsm", 4, f"no answer within {limit:g} s")
                self.poll(min(left, 0.5))
        finally:
            if "value" in outcome or "error" in outcome:
                self._in_flight.pop(token, None)
        if "error" in outcome:
            raise outcome["error"]
        return outcome.get("value")

    def validate(self) -> bool:
        """Whether the server accepts this device's configuration (True, or raises)."""
        return bool(self._call(self._lib.zsm_host_validate)["accepted"])

    def subscribe(self, feed: str, *, max_items: Optional[int] = None,
                  autodelete: Optional[bool] = None,
                  max_bitrate: Optional[int] = None) -> Dict[str, JsonValue]:
        """Subscribes to ``feed``; rules given hold until the next sync (the server
        is the authority on a feed's rules), rules not given come from the global
        settings. Returns {"feed", "rules"}."""
        if max_items is None and autodelete is None and max_bitrate is None:
            return self._call(self._lib.zsm_host_subscribe, feed.encode())
        return self._call(self._lib.zsm_host_subscribe_with_rules, feed.encode(),
                          -1 if max_items is None else _int32("max_items", max_items),
                          -1 if autodelete is None else int(bool(autodelete)),
                          -1 if max_bitrate is None else _int32("max_bitrate", max_bitrate))

    def unsubscribe(self, feed: str) -> Dict[str, JsonValue]:
        """Leaves ``feed``; its items are deleted."""
        return self._call(self._lib.zsm_host_unsubscribe, feed.encode())

    def unsubscribe_all(self) -> List[str]:
        """Leaves every feed the server lists; returns their identifiers."""
        return self._call(self._lib.zsm_host_unsubscribe_all)["unsubscribed"]

    def subscriptions(self) -> List[str]:
        """The server's list of this device's subscriptions."""
        return self._call(self._lib.zsm_host_subscriptions)

    def sync(self, force: bool = False) -> Dict[str, JsonValue]:
        """A catalog sync: new items are queued for download and the feeds'
        retention rules applied. Returns {"subscriptions", "last_sync"}."""
        return self._call(self._lib.zsm_host_sync, int(force))

    def push_notice(self, payload: Dict[str, JsonValue]) -> Dict[str, JsonValue]:
        """Delivers a remote push notice (e.g. {"subscription_sync": True}) as the
        system would. Returns {"accepted", "answer", "answer_name"}."""
        return self._call(self._lib.zsm_host_push_notice, json.dumps(payload).encode())

    def background_fetch(self) -> Dict[str, JsonValue]:
        """A background fetch as the system would deliver it. Returns {"answer",
        "answer_name"}: "new-data", "no-data" or "failed"."""
        return self._call(self._lib.zsm_host_background_fetch)

    def publish(self, item: Dict[str, JsonValue]) -> Dict[str, JsonValue]:
        """Announces an item (with "downloadURL" or "streamURL") to the server."""
        return self._call(self._lib.zsm_host_publish, json.dumps(item).encode())

    # --- Immediate operations ------------------------------------------------------------------

    def _json(self, function: Callable[..., int], *args: Any) -> JsonValue:
        text = ctypes.c_void_p()
        error = ctypes.c_void_p()
        _check(function(self._live(), *args, ctypes.byref(text), ctypes.byref(error)), error)
        try:
            return json.loads(ctypes.string_at(text.value).decode())
        finally:
            self._lib.zsm_free(text)

    def _set(self, function: Callable[..., int], value: Any) -> None:
        error = ctypes.c_void_p()
        _check(function(self._live(), value, ctypes.byref(error)), error)

    def settings(self) -> Dict[str, JsonValue]:
        """The global settings: max-items, autodelete, max-bitrate, last-sync, verbose."""
        return self._json(self._lib.zsm_host_settings)

    def set_max_items(self, value: int) -> None:
        """Maximum items per feed for new subscriptions (0: no limit), at most 2**31 - 1."""
        self._set(self._lib.zsm_host_set_max_items, _int32("max_items", value))

    def set_autodelete(self, value: bool) -> None:
        self._set(self._lib.zsm_host_set_autodelete, int(value))

    def set_max_bitrate(self, value: int) -> None:
        """Maximum bit rate for new subscriptions (0: no cap), at most 2**31 - 1."""
        self._set(self._lib.zsm_host_set_max_bitrate, _int32("max_bitrate", value))

    def set_verbose(self, value: bool) -> None:
        """Trace lines of request and reply bodies in the log."""
        self._set(self._lib.zsm_host_set_verbose, int(value))

    @property
    def last_sync(self) -> float:
        """The last-sync date, seconds since 1970; items published after it count
        as new. Settable (a new device catches up by moving it back)."""
        seconds = ctypes.c_double()
        error = ctypes.c_void_p()
        _check(self._lib.zsm_host_last_sync(self._live(), ctypes.byref(seconds),
                                            ctypes.byref(error)), error)
        return seconds.value

    @last_sync.setter
    def last_sync(self, seconds: float) -> None:
        self._set(self._lib.zsm_host_set_last_sync, float(seconds))

    def status(self) -> Dict[str, JsonValue]:
        """Status, last sync, asset counts by state and tracked feeds."""
        return self._json(self._lib.zsm_host_status)

    def feeds(self) -> List[Dict[str, JsonValue]]:
        """The feeds tracked on the device with their rules, items and deferred items."""
        return self._json(self._lib.zsm_host_feeds)

    def items(self, feed: Optional[str] = None) -> List[Dict[str, JsonValue]]:
        """The device's items, oldest first, with download state and progress."""
        return self._json(self._lib.zsm_host_items, None if feed is None else feed.encode())

    def deferred(self) -> List[str]:
        """Identifiers of the items held back while their feed is full."""
        return self._json(self._lib.zsm_host_deferred)

    def pending_downloads(self) -> int:
        """How many downloads are queued or running."""
        count = ctypes.c_int64()
        error = ctypes.c_void_p()
        _check(self._lib.zsm_host_pending_downloads(self._live(), ctypes.byref(count),
                                                    ctypes.byref(error)), error)
        return count.value

    def library(self) -> Dict[str, JsonValue]:
        """Brings the library view up to date and returns it: links to the finished
        downloads named by feed and title, ``<data_folder>/library/<feed>/<title>.mp4``
        (direct items in ``_direct/``, a stream as a folder). {"library": folder,
        "entries": [{"link", "target", "feed", "uuid"}]}. The engine's files stay
        where they are."""
        return self._json(self._lib.zsm_host_update_library)

    def wait_for_downloads(self, timeout: float = 120.0,
                           settle: float = 0.6) -> List[Dict[str, JsonValue]]:
        """Drives the host until no download is queued or running (and stays so
        for ``settle`` seconds, as a finished download may let a deferred item
        start); returns the items. Raises OperationTimeout when it takes longer."""
        deadline = time.monotonic() + timeout
        idle_since: Optional[float] = None
        while True:
            self.poll(0.1)
            now = time.monotonic()
            if self.pending_downloads() == 0:
                idle_since = idle_since or now
                if now - idle_since >= settle:
                    return self.items()
            else:
                idle_since = None
            if now >= deadline:
                raise OperationTimeout("zsm", 4, f"downloads still running after {timeout:g} s")


def version() -> str:
    """The library's version text."""
    return _native.library().zsm_version().decode()
