"""Exceptions raised by the package: each carries the library's error domain,
code and description unchanged."""

from __future__ import annotations

from typing import Dict, Tuple, Type

#: The domain of the errors that the C interface makes itself.
ZSM_DOMAIN = "zsm"
#: The library's own domain (codes -1 to -5, or the server's response code).
MANAGER_DOMAIN = "ZolvaniSubscriptionManager"
#: The download engine's domain.
ENGINE_DOMAIN = "ZolvaniReferenceEngine"
#: The network transport's domain.
TRANSPORT_DOMAIN = "ZolvaniTransport.curl"


class ZsmError(Exception):
    """A failure reported by the library: ``domain``, ``code`` and ``description``."""

    def __init__(self, domain: str, code: int, description: str) -> None:
        super().__init__(f"{domain} {code}: {description}")
        self.domain = domain
        self.code = code
        self.description = description


class ArgumentError(ZsmError, ValueError):
    """An argument the library refuses (``zsm`` 1)."""


class NotConfiguredError(ZsmError):
    """The configuration lacks the server, user, key or secret (``zsm`` 2)."""


class DataFolderError(ZsmError, OSError):
    """The data folder could not be made or written (``zsm`` 3)."""


class StateError(ZsmError):
    """Not started, started already, closed, or a sync already running (``zsm`` 9)."""


class InternalError(ZsmError):
    """An unexpected failure inside the library (``zsm`` 10)."""


class OperationTimeout(ZsmError, TimeoutError):
    """No answer within the time the caller allowed."""


class ServerError(ZsmError):
    """The server refused, failed or answered with an error code."""


class AuthenticationError(ServerError):
    """The server did not accept this device's credentials (manager code -1)."""


class OfflineError(ZsmError):
    """No network connection was available (manager code -5)."""


class TransportError(ZsmError, ConnectionError):
    """The server could not be reached (connection refused, time-out, ...)."""


class EngineError(ZsmError):
    """The download engine failed (store, files, transfers)."""


_ZSM_CODES: Dict[int, Type[ZsmError]] = {
    1: ArgumentError,
    2: NotConfiguredError,
    3: DataFolderError,
    4: OperationTimeout,
    8: ServerError,
    9: StateError,
    10: InternalError,
}
_MANAGER_CODES: Dict[int, Type[ZsmError]] = {-1: AuthenticationError, -5: OfflineError}


def error_for(domain: str, code: int, description: str) -> ZsmError:
    """The exception that fits an error of the library."""
    cls: Type[ZsmError] = ZsmError
    if domain == ZSM_DOMAIN:
        cls = _ZSM_CODES.get(code, ZsmError)
    elif domain == MANAGER_DOMAIN:
        cls = _MANAGER_CODES.get(code, ServerError)
    elif domain == TRANSPORT_DOMAIN:
        cls = TransportError
    elif domain == ENGINE_DOMAIN:
        cls = EngineError
    return cls(domain, code, description)


__all__: Tuple[str, ...] = (
    "ZsmError", "ArgumentError", "NotConfiguredError", "DataFolderError", "StateError",
    "InternalError", "OperationTimeout", "ServerError", "AuthenticationError", "OfflineError",
    "TransportError", "EngineError", "error_for", "ZSM_DOMAIN", "MANAGER_DOMAIN",
    "ENGINE_DOMAIN", "TRANSPORT_DOMAIN",
)
