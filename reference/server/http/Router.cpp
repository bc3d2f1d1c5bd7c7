#include "reference/server/http/Router.h"

namespace zolvani::refserver {

void Router::Add(const std::string& method, const std::string& pattern, Handler handler,
                 bool readsBody) {
  routes_.push_back(Route{method, std::regex(pattern), std::move(handler), readsBody});
}

const Router::Route* Router::Find(const std::string& method, const std::string& path,
                                  std::vector<std::string>* matches) const {
  const std::string& wanted = method == "HEAD" ? std::string("GET") : method;
  for (const auto& route : routes_) {
    if (route.method != wanted) continue;
    std::smatch m;
    if (!std::regex_match(path, m, route.pattern)) continue;
    matches->clear();
    for (const auto& group : m) matches->push_back(group.str());
    return &route;
  }
  return nullptr;
}

}  // namespace zolvani::refserver
