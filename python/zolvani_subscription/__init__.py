"""Python host for the Zolvani subscription manager, over its C interface.

    from zolvani_subscription import Host
    with Host(data_folder=..., server_url=..., user=..., key=..., secret=...) as host:
        host.subscribe("morning-news", max_items=2)
        host.sync(force=True)
        host.wait_for_downloads()
"""

from .errors import (AuthenticationError, ArgumentError, DataFolderError, EngineError,
                     InternalError, NotConfiguredError, OfflineError, OperationTimeout,
                     ServerError, StateError, TransportError, ZsmError)
from .host import EVENT_KINDS, Event, Host, version

__all__ = [
    "Host", "Event", "EVENT_KINDS", "version", "ZsmError", "ArgumentError",
    "NotConfiguredError", "DataFolderError", "StateError", "InternalError", "OperationTimeout",
    "ServerError", "AuthenticationError", "OfflineError", "TransportError", "EngineError",
]
