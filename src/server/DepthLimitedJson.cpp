#include "server/DepthLimitedJson.h"

#include <algorithm>
#include <utility>

namespace zolvani {
namespace {

using json = nlohmann::json;

// Builds the tree from the parser's events. `open_` holds the containers
// being filled; `skipping_` counts the containers open inside a left-out one,
// whose events are all ignored.
class PruningBuilder : public nlohmann::json_sax<json> {
 public:
  PruningBuilder(DepthLimitedJson& out, std::size_t maxDepth) : out_(out), maxDepth_(maxDepth) {}

  bool null() override { return put(json()); }
  bool boolean(bool v) override { return put(json(v)); }
  bool number_integer(number_integer_t v) override { return put(json(v)); }
  bool number_unsigned(number_unsigned_t v) override { return put(json(v)); }
  bool number_float(number_float_t v, const string_t&) override { return put(json(v)); }
  bool string(string_t& v) override { return put(json(std::move(v))); }
  bool binary(binary_t& v) override { return put(json::binary(std::move(v))); }

  bool start_object(std::size_t) override { return open(json::object()); }
  bool start_array(std::size_t) override { return open(json::array()); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }

  bool key(string_t& k) override {
    if (skipping_ == 0) key_ = std::move(k);
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

 private:
  struct Open {
    json* container;
    std::string step;  // where it sits in its parent, as a pointer step
  };

  // The pointer step the next value takes in the innermost open container.
  std::string nextStep() const {
    const json& top = *open_.back().container;
    if (top.is_array()) return std::to_string(top.size());
    std::string escaped;
    for (char c : key_) {
      if (c == '~')
        escaped += "~0";
      else if (c == '/')
        escaped += "~1";
      else
        escaped += c;
    }
    return escaped;
  }

  json* place(json v) {
    if (open_.empty()) {
      out_.value = std::move(v);
      return &out_.value;
    }
    json& top = *open_.back().container;
    if (top.is_array()) {
      top.push_back(std::move(v));
      return &top.back();
    }
    json& slot = top[key_];
    slot = std::move(v);
    return &slot;
  }

  bool put(json v) {
    if (skipping_ == 0) place(std::move(v));
    return true;
  }

  bool open(json empty) {
    if (skipping_ > 0) {
      ++skipping_;
      return true;
    }
    if (open_.size() >= maxDepth_) {
      ++skipping_;
      notePruned();
      return true;
    }
    std::string step = open_.empty() ? std::string() : nextStep();
    open_.push_back({place(std::move(empty)), std::move(step)});
    return true;
  }

  bool close() {
    if (skipping_ > 0)
      --skipping_;
    else
      open_.pop_back();
    return true;
  }

  void notePruned() {
    ++out_.pruned;
    if (out_.places.size() >= DepthLimitedJson::kMaxPlaces) return;
    std::string pointer;
    std::size_t steps = 0;
    for (std::size_t i = 1; i < open_.size() && steps < DepthLimitedJson::kPointerSteps;
         ++i, ++steps)
      pointer += "/" + open_[i].step;
    if (steps < DepthLimitedJson::kPointerSteps) pointer += "/" + nextStep();
    if (std::find(out_.places.begin(), out_.places.end(), pointer) == out_.places.end())
      out_.places.push_back(std::move(pointer));
  }

  DepthLimitedJson& out_;
  const std::size_t maxDepth_;
  std::vector<Open> open_;
  std::size_t skipping_ = 0;
  std::string key_;
};

}  // namespace

DepthLimitedJson DepthLimitedJson::parse(std::string_view text, std::size_t maxDepth) {
  DepthLimitedJson out;
  PruningBuilder builder(out, maxDepth);
  out.isJson = json::sax_parse(text, &builder, json::input_format_t::json, /*strict=*/true);
  if (!out.isJson) {
    out.value = nullptr;
    out.places.clear();
    out.pruned = 0;
  }
  return out;
}

}  // namespace zolvani
