#include "MediaServer.h"

#include <httplib.h>

namespace zolvani::testing {

std::string patternBytes(std::size_t size, unsigned seed) {
  std::string out(size, '\0');
  std::uint32_t x = seed * 2654435761u + 1;
  for (std::size_t i = 0; i < size; ++i) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    out[i] = static_cast<char>(x & 0xff);
  }
  return out;
}

MediaServer::MediaServer() : server_(std::make_unique<httplib::Server>()) {
  server_->Get(R"(/.*)", [this](const httplib::Request& req, httplib::Response& res) {
    MediaRoute route;
    {
      std::lock_guard l(mutex_);
      requests_.push_back(
          {req.path, req.get_header_value("Range"), req.get_header_value("If-Range")});
      auto it = routes_.find(req.path);
      if (it == routes_.end()) {
        res.status = 404;
        return;
      }
      MediaRoute& r = it->second;
      if (r.status != 0 && r.failuresLeft != 0) {
        if (r.failuresLeft > 0) --r.failuresLeft;
        // The refusal is the whole answer: the HTTP library must not cut a
        // requested range out of it (and answer 416 instead).
        const_cast<httplib::Request&>(req).ranges.clear();
        res.status = r.status;
        res.set_content("refused", "text/plain");
        return;
      }
      route = r;
      if (r.truncations > 0) --r.truncations;
    }
    res.set_header("ETag", route.etag);
    if (!req.ranges.empty() && req.ranges.front().first >= 0 &&
        static_cast<std::size_t>(req.ranges.front().first) >= route.body->size()) {
      res.status = 416;
      res.set_header("Content-Range", "bytes */" + std::to_string(route.body->size()));
      return;
    }
    const std::string ifRange = req.get_header_value("If-Range");
    if (!ifRange.empty() && ifRange != route.etag) {
      // A stale validator gets the whole body again; the HTTP library would
      // otherwise cut the range it parsed.
      const_cast<httplib::Request&>(req).ranges.clear();
      res.status = 200;
    }
    auto body = route.body;
    const bool truncate = route.truncations > 0;
    const std::size_t cut = route.truncateAt;
    const std::size_t chunk = route.chunk;
    const auto pause = route.pause;
    auto provider = [body, truncate, cut, chunk, pause](std::size_t offset, std::size_t length,
                                                        httplib::DataSink& sink) {
      std::size_t end = offset + length;
      if (truncate && end > offset + cut) end = offset + cut;
      std::size_t at = offset;
      while (at < end) {
        std::size_t n = std::min(chunk, end - at);
        if (!sink.write(body->data() + at, n)) return false;
        at += n;
        if (pause.count() > 0) std::this_thread::sleep_for(pause);
      }
      return !truncate || length <= cut;
    };
    if (route.sendLength) {
      res.set_content_provider(body->size(), route.contentType, provider);
    } else {
      res.set_chunked_content_provider(
          route.contentType, [provider, body](std::size_t offset, httplib::DataSink& sink) {
            if (offset >= body->size()) {
              sink.done();
              return true;
            }
            return provider(offset, body->size() - offset, sink);
          });
    }
  });
  port_ = server_->bind_to_any_port("127.0.0.1");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
}

MediaServer::~MediaServer() {
  server_->stop();
  thread_.join();
}

void MediaServer::set(const std::string& path, MediaRoute route) {
  std::lock_guard l(mutex_);
  routes_[path] = std::move(route);
}

void MediaServer::add(const std::string& path, std::string body, std::string contentType) {
  MediaRoute r;
  r.body = std::make_shared<const std::string>(std::move(body));
  r.contentType = std::move(contentType);
  set(path, std::move(r));
}

void MediaServer::change(const std::string& path, std::string body, std::string etag) {
  std::lock_guard l(mutex_);
  auto& r = routes_[path];
  r.body = std::make_shared<const std::string>(std::move(body));
  r.etag = std::move(etag);
}

std::string MediaServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<RequestRecord> MediaServer::requests() const {
  std::lock_guard l(mutex_);
  return requests_;
}

std::vector<RequestRecord> MediaServer::requestsFor(const std::string& path) const {
  std::lock_guard l(mutex_);
  std::vector<RequestRecord> out;
  for (const auto& r : requests_)
    if (r.path == path) out.push_back(r);
  return out;
}

}  // namespace zolvani::testing
