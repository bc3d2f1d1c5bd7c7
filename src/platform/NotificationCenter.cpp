#include "zolvani/subscription/platform/NotificationCenter.h"

#include <algorithm>

namespace zolvani {

NotificationCenter::Token NotificationCenter::addObserver(std::string name,
                                                          std::shared_ptr<DispatchQueue> queue,
                                                          Block block) {
  std::lock_guard lock(mutex_);
  Token token = nextToken_++;
  observers_.push_back(Observer{token, std::move(name), std::move(queue),
                                std::make_shared<Block>(std::move(block))});
  return token;
}

void NotificationCenter::removeObserver(Token token) {
  std::lock_guard lock(mutex_);
  std::erase_if(observers_, [token](const Observer& o) { return o.token == token; });
}

void NotificationCenter::post(std::string name, Value::Map userInfo) {
  std::vector<Observer> matching;
  {
    std::lock_guard lock(mutex_);
    for (const auto& o : observers_)
      if (o.name == name) matching.push_back(o);
  }
  if (matching.empty()) return;
  auto note =
      std::make_shared<const Notification>(Notification{std::move(name), std::move(userInfo)});
  // Observers run outside the lock so that they may post or register in turn.
  for (const auto& o : matching) {
    if (o.queue) {
      o.queue->async([block = o.block, note] { (*block)(*note); });
    } else {
      (*o.block)(*note);
    }
  }
}

std::size_t NotificationCenter::observerCount(std::string_view name) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(observers_.begin(), observers_.end(),
                                                [&](const Observer& o) { return o.name == name; }));
}

}  // namespace zolvani
