"""A Python host: subscribe, sync, and print the downloads' progress.

    python3 sync_example.py SERVER_URL DATA_FOLDER [FEED]
"""
import sys
import time

from zolvani_subscription import Event, Host


def show(event: Event) -> None:
    if event.kind in ("download-progress", "download-finished"):
        item = event.data
        print(f"  {item['asset_id']:<16} {100 * item['fraction']:5.1f}%  {item['state']}")
    else:
        print(f"  {event.kind} {event.data}")


url, folder = sys.argv[1], sys.argv[2]
feed = sys.argv[3] if len(sys.argv) > 3 else "morning-news"
with Host(data_folder=folder, server_url=url, user="demo", key="demo-public-key",
          secret="demo-secret") as host:
    host.on_event(show)
    host.last_sync = time.time() - 7 * 24 * 3600  # catch up on the last week
    print("subscribe:", host.subscribe(feed, max_items=2, autodelete=True))
    print("sync:", host.sync(force=True))
    for item in host.wait_for_downloads(timeout=120):
        print(f"{item['state']:<9} {item['asset_id']:<16} {item['file']}")
