// Router: picks the handler of a request by method and path. Routes are tried in
// the order they were added; a pattern is a regular expression that must match
// the whole decoded path, and its groups reach the handler as Request::matches.
// A HEAD request is served by the GET route, without the body.
//
// A route says whether it reads the request's body: the transport reads (within
// its limits) only the bodies of such routes, and answers every other request
// without reading one, closing the connection after it when one was sent.
//
// Not thread-safe while routes are added; safe to share between threads after.
#pragma once

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "reference/server/http/HttpMessage.h"

namespace zolvani::refserver {

using Handler = std::function<void(const Request&, Response&)>;

class Router {
 public:
  void Get(const std::string& pattern, Handler handler) {
    Add("GET", pattern, std::move(handler), false);
  }
  // With `readsBody` the request's body is read first into Request::body.
  void Post(const std::string& pattern, Handler handler, bool readsBody = true) {
    Add("POST", pattern, std::move(handler), readsBody);
  }

  struct Route {
    std::string method;
    std::regex pattern;
    Handler handler;
    bool readsBody = false;
  };

  // The route for `method` and `path`, with `matches` filled; null when none.
  const Route* Find(const std::string& method, const std::string& path,
                    std::vector<std::string>* matches) const;

 private:
  void Add(const std::string& method, const std::string& pattern, Handler handler, bool readsBody);

  std::vector<Route> routes_;
};

}  // namespace zolvani::refserver
