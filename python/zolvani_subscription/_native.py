"""The C interface (zsm.h) as ctypes declarations, and where libzsm is found."""

from __future__ import annotations

import ctypes
import ctypes.util
import os
from pathlib import Path
from typing import List, Optional

LIBRARY_NAME = "libzsm.so.1"
#: Names a library file to load instead of searching.
LIBRARY_ENV = "ZSM_LIBRARY"

EVENT_FN = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p)
RESULT_FN = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_char_p)

_lib: Optional[ctypes.CDLL] = None


def _candidates() -> List[str]:
    found: List[str] = []
    override = os.environ.get(LIBRARY_ENV)
    if override:
        found.append(override)
    here = Path(__file__).resolve().parent
    for name in (LIBRARY_NAME, "libzsm.so"):
        if (here / name).exists():
            found.append(str(here / name))
    found.append(LIBRARY_NAME)  # the system's loader path
    located = ctypes.util.find_library("zsm")
    if located:
        found.append(located)
    return found


def _declare(lib: ctypes.CDLL) -> None:
    c_int, c_char_p, c_void_p = ctypes.c_int, ctypes.c_char_p, ctypes.c_void_p
    err = ctypes.POINTER(c_void_p)
    out = ctypes.POINTER(c_void_p)

    def fn(name: str, restype, *argtypes) -> None:
        f = getattr(lib, name)
        f.restype = restype
        f.argtypes = list(argtypes)

    fn("zsm_version", c_char_p)
    fn("zsm_error_domain", c_char_p, c_void_p)
    fn("zsm_error_code", ctypes.c_int64, c_void_p)
    fn("zsm_error_description", c_char_p, c_void_p)
    fn("zsm_error_free", None, c_void_p)
    fn("zsm_free", None, c_void_p)
    fn("zsm_event_name", c_char_p, c_int)
    fn("zsm_config_new", c_void_p)
    fn("zsm_config_free", None, c_void_p)
    fn("zsm_config_set", c_int, c_void_p, c_char_p, c_char_p, err)
    fn("zsm_host_create", c_int, c_void_p, out, err)
    fn("zsm_host_start", c_int, c_void_p, err)
    fn("zsm_host_close", c_int, c_void_p)
    fn("zsm_host_poll", c_int, c_void_p, c_int)
    fn("zsm_host_fd", c_int, c_void_p)
    fn("zsm_host_wakeup", c_int, c_void_p, err)
    fn("zsm_host_set_event_callback", c_int, c_void_p, EVENT_FN, c_void_p, err)
    for name in ("zsm_host_validate", "zsm_host_unsubscribe_all", "zsm_host_subscriptions",
                 "zsm_host_background_fetch"):
        fn(name, c_int, c_void_p, RESULT_FN, c_void_p, err)
    for name in ("zsm_host_subscribe", "zsm_host_unsubscribe", "zsm_host_push_notice",
                 "zsm_host_publish"):
        fn(name, c_int, c_void_p, c_char_p, RESULT_FN, c_void_p, err)
    fn("zsm_host_subscribe_with_rules", c_int, c_void_p, c_char_p, ctypes.c_int32, c_int,
       ctypes.c_int32, RESULT_FN, c_void_p, err)
    fn("zsm_host_sync", c_int, c_void_p, c_int, RESULT_FN, c_void_p, err)
    for name in ("zsm_host_settings", "zsm_host_status", "zsm_host_feeds", "zsm_host_deferred"):
        fn(name, c_int, c_void_p, out, err)
    fn("zsm_host_items", c_int, c_void_p, c_char_p, out, err)
    fn("zsm_host_set_max_items", c_int, c_void_p, ctypes.c_int32, err)
    fn("zsm_host_set_autodelete", c_int, c_void_p, c_int, err)
    fn("zsm_host_set_max_bitrate", c_int, c_void_p, ctypes.c_int32, err)
    fn("zsm_host_set_last_sync", c_int, c_void_p, ctypes.c_double, err)
    fn("zsm_host_set_verbose", c_int, c_void_p, c_int, err)
    fn("zsm_host_last_sync", c_int, c_void_p, ctypes.POINTER(ctypes.c_double), err)
    fn("zsm_host_pending_downloads", c_int, c_void_p, ctypes.POINTER(ctypes.c_int64), err)
    fn("zsm_host_update_library", c_int, c_void_p, out, err)


def library() -> ctypes.CDLL:
    """libzsm, loaded once: $ZSM_LIBRARY, then next to this package, then the
    system's loader path. Raises OSError naming every place tried."""
    global _lib
    if _lib is not None:
        return _lib
    tried: List[str] = []
    for candidate in _candidates():
        try:
            lib = ctypes.CDLL(candidate)
        except OSError as e:
            tried.append(f"{candidate} ({e})")
            continue
        _declare(lib)
        _lib = lib
        return lib
    raise OSError("cannot load libzsm; tried: " + "; ".join(tried) +
                  f". Set {LIBRARY_ENV} to the library's path, or install it.")
