// RetentionCleaner: brings one feed's tracked items back in line with reality
// and with the feed's rules. It deletes items whose assets vanished or whose
// downloads were cancelled, then, for a feed with auto-delete, drops the oldest
// items beyond its maximum, and announces every deleted UUID in one
// asset-deleted notification.
//
// Thread-safety: clean() may be called from any thread, also concurrently for
// the same feed. Each of its two store sections is serialised by the engine's
// context; the engine look-ups and deletions between them are not, so two
// concurrent calls may both announce an asset that vanished.
#pragma once

#include <string>

#include "store/FeedStoreEnvironment.h"

namespace zolvani {

class RetentionCleaner {
 public:
  explicit RetentionCleaner(FeedStoreEnvironment environment);

  // cleanSubscriptionDataForFeed:checkForCanceled:. With `checkForCanceled`
  // false an unfinished asset that is neither queued nor in transfer is kept;
  // an asset that no longer exists is always treated as deleted.
  void clean(const std::string& feed, bool checkForCanceled) const;

 private:
  FeedStoreEnvironment env_;
};

}  // namespace zolvani
