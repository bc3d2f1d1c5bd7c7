// NotificationCenter: named notifications with a user-information map.
//
// Observers register for one name with a delivery queue; posting runs each
// matching observer's block on its queue (or on the posting thread when the
// observer named no queue). Posts carry no object, only user information.
//
// Thread-safety: every member may be called from any thread.
#pragma once

#include "zolvani/subscription/Export.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "zolvani/subscription/Value.h"
#include "zolvani/subscription/platform/DispatchQueue.h"

namespace zolvani {

struct ZSM_EXPORT Notification {
  std::string name;
  Value::Map userInfo;
};

class ZSM_EXPORT NotificationCenter {
 public:
  using Block = std::function<void(const Notification&)>;
  using Token = std::uint64_t;

  // `queue` may be null: the block then runs synchronously on the posting thread.
  Token addObserver(std::string name, std::shared_ptr<DispatchQueue> queue, Block block);
  void removeObserver(Token token);
  void post(std::string name, Value::Map userInfo = {});

  std::size_t observerCount(std::string_view name) const;

 private:
  struct Observer {
    Token token;
    std::string name;
    std::shared_ptr<DispatchQueue> queue;
    std::shared_ptr<Block> block;
  };
  mutable std::mutex mutex_;
  std::vector<Observer> observers_;
  Token nextToken_ = 1;
};

}  // namespace zolvani
