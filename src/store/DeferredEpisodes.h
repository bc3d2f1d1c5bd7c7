// DeferredEpisodes: promotes items that admission held back for lack of room
// into their feed's tracked items once room appears, queues their assets for
// download and announces them; and lists the deferred items for the host.
//
// Thread-safety: both operations may be called from any thread, also while
// other promotions run. Each promotion fetches afresh and moves items inside
// one store section, so an item is never in both collections of a feed; the
// cleaning and queueing around it are not atomic.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "store/FeedStoreEnvironment.h"
#include "store/RetentionCleaner.h"

namespace zolvani {

class DeferredEpisodes : public std::enable_shared_from_this<DeferredEpisodes> {
 public:
  // `processingQueue` yields the queue promotions run on; it is asked at each
  // call because the manager makes its queue after its collaborators.
  DeferredEpisodes(FeedStoreEnvironment environment, std::shared_ptr<RetentionCleaner> cleaner,
                   std::function<std::shared_ptr<DispatchQueue>()> processingQueue);

  // checkOnDeferredEpisodes: submits a promotion run to the processing queue
  // and returns at once. Without a queue nothing runs.
  void checkOnDeferredEpisodes();
  // The promotion run itself, on the calling thread.
  void promoteDeferredItems();
  // deferredEpisodes: the asset IDs of deferred items whose assets still
  // exist. Cleans every feed first, which may delete tracked items.
  std::vector<std::string> deferredEpisodes();

 private:
  FeedStoreEnvironment env_;
  std::shared_ptr<RetentionCleaner> cleaner_;
  std::function<std::shared_ptr<DispatchQueue>()> processingQueue_;
};

}  // namespace zolvani
