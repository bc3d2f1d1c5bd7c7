"""The package against a real zsm-server on loopback: a device configured,
subscribed with rules, synced and followed to the end of its downloads; the
retention rule deleting an item and saying so; leaving a feed; and the errors a
host meets (bad arguments, a refused secret, a server that is gone)."""

from __future__ import annotations

import os
import selectors
import time
import uuid
from pathlib import Path

import pytest

from conftest import Server, device_settings, wait_until
from zolvani_subscription import (ArgumentError, AuthenticationError, Event, Host,
                                  NotConfiguredError, StateError, TransportError, ZsmError,
                                  version)

WEEK = 7 * 24 * 3600


@pytest.fixture(scope="module")
def news_device(server: Server, work: Path):
    """A device subscribed to morning-news with room for two items, synced, its
    downloads finished; with every event it received."""
    device_id = str(uuid.uuid4()).upper()
    events: list[Event] = []
    host = Host(**device_settings(server, work / "news-device", device_id=device_id))
    host.on_event(events.append)
    host.last_sync = time.time() - WEEK  # the sample predates this device
    subscribed = host.subscribe("morning-news", max_items=2, autodelete=True)
    # The server is the authority on the feed's rules: it keeps two items too.
    server.admin("set-rule", "--user", "demo", "--device", device_id, "--feed", "morning-news",
                 "--max-assets", "2", "--auto-delete", "true")
    synced = host.sync(force=True)
    items = host.wait_for_downloads(timeout=60)
    yield host, events, subscribed, synced, items, device_id
    host.close()


def test_subscribe_with_rules_sync_and_download(news_device) -> None:
    host, events, subscribed, synced, items, _ = news_device
    assert subscribed["rules"] == {"max_items": 2, "autodelete": True,
                                   "max_bitrate": subscribed["rules"]["max_bitrate"]}
    assert "morning-news" in synced["subscriptions"]
    news = [i for i in items if i["feed"] == "morning-news"]
    assert len(news) == 2
    for item in items:
        assert item["state"] == "complete", item
        assert Path(item["file"]).is_file() and Path(item["file"]).stat().st_size > 0
    kinds = {e.kind for e in events}
    assert {"asset-added", "sync-finished", "status-changed", "download-finished"} <= kinds
    added = {a["uuid"] for e in events if e.kind == "asset-added" for a in e.data["assets"]}
    assert {i["uuid"] for i in news} <= added
    finished = [e.data for e in events if e.kind == "download-finished"]
    assert all(f["state"] == "complete" for f in finished)
    # Download events say where the item belongs, as items() does.
    downloads = [e.data for e in events if e.kind in ("download-progress", "download-finished")]
    assert all("feed" in d and "deferred" in d for d in downloads)
    places = {i["uuid"]: (i["feed"], i["deferred"]) for i in items}
    for f in finished:
        assert (f["feed"], f["deferred"]) == places[f["uuid"]], f
    status = host.status()
    assert status["synced"] and status["last_sync"] is not None
    assert status["assets"].get("complete") == len(items)
    feeds = host.feeds()
    assert [f["feed"] for f in feeds] == ["morning-news"]
    assert feeds[0]["max_items"] == 2 and feeds[0]["rules_from"] == "server"
    assert host.deferred() == []
    assert host.subscriptions() == ["morning-news"]
    # The library view links each download by feed and title.
    view = host.library()
    links = {Path(e["link"]).relative_to(view["library"]).parts[0] for e in view["entries"]}
    assert links == {"morning-news", "_direct"}
    for entry in view["entries"]:
        link = Path(entry["link"])
        assert link.is_symlink() and link.resolve() == Path(entry["target"]).resolve()


def test_retention_deletes_the_oldest_and_announces_it(news_device, server: Server) -> None:
    host, events, _, _, items, _ = news_device
    before = {i["uuid"]: i for i in items if i["feed"] == "morning-news"}
    oldest = min(before.values(), key=lambda i: i["created"])
    seen = len(events)
    server.admin("add-item", "--uuid", "news-0100", "--feed", "morning-news", "--media",
                 "files/morning-news-1.mp4", "--title", "Morning News 100")
    host.sync(force=True)
    host.wait_for_downloads(timeout=60)
    new_events = events[seen:]
    added = [a for e in new_events if e.kind == "asset-added" for a in e.data["assets"]]
    deleted = [u for e in new_events if e.kind == "asset-deleted" for u in e.data["uuids"]]
    assert [a["asset_id"] for a in added] == ["news-0100"]
    assert deleted == [oldest["uuid"]]
    now = {i["uuid"]: i for i in host.items("morning-news")}
    assert len(now) == 2 and oldest["uuid"] not in now
    assert not Path(oldest["file"]).exists()


def test_unsubscribe_removes_the_feed(news_device) -> None:
    host, events, _, _, _, _ = news_device
    seen = len(events)
    assert host.unsubscribe("morning-news")["unsubscribed"] == ["morning-news"]
    assert host.subscriptions() == []
    assert wait_until(lambda: host.items("morning-news") == [], 10, host.poll)
    assert any(e.kind == "asset-deleted" for e in events[seen:])
    assert host.unsubscribe_all() == []


def test_settings_wakes_events_and_descriptor(server: Server, work: Path) -> None:
    with Host(**device_settings(server, work / "watcher")) as host:
        assert host.settings()["max-items"] == 0
        host.set_max_items(4)
        host.set_autodelete(False)
        host.set_max_bitrate(800000)
        host.set_verbose(False)
        settings = host.settings()
        assert (settings["max-items"], settings["autodelete"], settings["max-bitrate"]) == (
            4, False, 800000)
        host.last_sync = 1_000_000
        assert host.last_sync == 1_000_000 == host.settings()["last-sync"]
        pushed = host.push_notice({"subscription_sync": False})
        assert pushed["accepted"] is False and pushed["answer"] is None
        # No subscriptions: the fetch's sync succeeds with an empty list.
        assert host.background_fetch()["answer_name"] == "no-data"
        kinds = [e.kind for e in host.events(timeout=0.3)]
        assert "sync-finished" in kinds
        # The descriptor is readable exactly while work waits.
        with selectors.DefaultSelector() as selector:
            selector.register(host.fileno(), selectors.EVENT_READ)
            host.poll()
            assert selector.select(timeout=0) == []
            host.wakeup()
            assert len(selector.select(timeout=2)) == 1
            assert host.poll() >= 1
            assert selector.select(timeout=0) == []


def test_arguments_and_states(server: Server, work: Path) -> None:
    assert version().count(".") == 2
    with pytest.raises(ArgumentError) as bad_url:
        Host(**device_settings(server, work / "bad", server_url="ftp://example"))
    assert bad_url.value.domain == "zsm" and bad_url.value.code == 1
    with pytest.raises(NotConfiguredError):
        Host(**device_settings(server, work / "bad", secret=""))
    with pytest.raises(ArgumentError):
        Host(**device_settings(server, work / "bad", parallel_transfers=0))
    host = Host(**device_settings(server, work / "states"), start=False)
    with pytest.raises(StateError):
        host.status()
    host.start()
    with pytest.raises(StateError):
        host.start()
    # Integers are checked against the C types before they cross: ctypes alone
    # would keep the low 32 bits (2**32 + 3 would read back as 3).
    host.set_max_items(7)
    host.set_max_bitrate(9)
    for setter in (host.set_max_items, host.set_max_bitrate):
        for value in (-1, 2**31, 2**32 + 3, 2**64, 1.5, "3", True):
            with pytest.raises(ArgumentError):
                setter(value)
    settings = host.settings()
    assert (settings["max-items"], settings["max-bitrate"]) == (7, 9)
    host.set_max_items(2**31 - 1)
    assert host.settings()["max-items"] == 2**31 - 1
    for rules in ({"max_items": 2**32 + 2}, {"max_bitrate": 2**32}, {"max_items": -3}):
        with pytest.raises(ArgumentError):
            host.subscribe("morning-news", **rules)
    with pytest.raises(ArgumentError):
        host.publish({"title": "no address"})
    with pytest.raises(ZsmError) as unknown:
        host.subscribe("no-such-feed")
    assert (unknown.value.domain, unknown.value.code) == ("ZolvaniSubscriptionManager", 2)
    host.close()
    host.close()
    with pytest.raises(StateError):
        host.sync()


def test_refused_secret_raises_authentication_error(server: Server, work: Path) -> None:
    with Host(**device_settings(server, work / "stranger", secret="wrong")) as host:
        with pytest.raises(AuthenticationError) as refused:
            host.validate()
        assert refused.value.code == -1
        assert refused.value.description == (
            "Failed to authenticate with server using provided credentials.")
        with pytest.raises(AuthenticationError):
            host.sync(force=True)


def test_stopped_server_raises_transport_error(plain_server: Server, work: Path) -> None:
    with Host(**device_settings(plain_server, work / "orphan")) as host:
        assert host.validate()
        plain_server.stop()
        with pytest.raises(TransportError) as gone:
            host.sync(force=True)
        assert gone.value.domain == "ZolvaniTransport.curl"
        assert isinstance(gone.value, ConnectionError)
        assert host.status()["status_name"] == "errors"


def test_library_override_is_honoured() -> None:
    library = os.environ.get("ZSM_LIBRARY")
    if not library:
        pytest.skip("ZSM_LIBRARY is not set")
    from zolvani_subscription import _native
    assert Path(_native.library()._name).resolve() == Path(library).resolve()
