// ChunkedSequence: a sequence that stays cheap to change in the middle. A
// feed's collections gain items at their sorted place, anywhere in the feed,
// and lose them from the front; a flat vector would move every later element
// each time, so a long feed would cost the square of its length to fill.
//
// The elements live in chunks of at most 2 × kChunk. Reaching an index walks
// the chunks' sizes, and an insertion or removal moves at most one chunk's
// elements, so each costs on the order of size / kChunk + kChunk instead of
// size. Iteration is in order and as cheap as over a vector.
//
// Thread-safety: none; like a std::vector, const members may be called from
// several threads at once and anything else needs the owner's lock.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

namespace zolvani {

template <typename T, std::size_t kChunk = 256>
class ChunkedSequence {
  static_assert(kChunk > 0);
  using Chunks = std::vector<std::vector<T>>;

 public:
  using value_type = T;

  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using pointer = const T*;
    using reference = const T&;

    const_iterator() = default;
    reference operator*() const { return (*chunks_)[chunk_][offset_]; }
    pointer operator->() const { return &**this; }
    const_iterator& operator++() {
      if (++offset_ == (*chunks_)[chunk_].size()) ++chunk_, offset_ = 0;
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const const_iterator& a, const const_iterator& b) {
      return a.chunk_ == b.chunk_ && a.offset_ == b.offset_;
    }

   private:
    friend class ChunkedSequence;
    const_iterator(const Chunks* chunks, std::size_t chunk, std::size_t offset)
        : chunks_(chunks), chunk_(chunk), offset_(offset) {}
    const Chunks* chunks_ = nullptr;
    std::size_t chunk_ = 0;
    std::size_t offset_ = 0;
  };

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const_iterator begin() const { return {&chunks_, 0, 0}; }
  const_iterator end() const { return {&chunks_, chunks_.size(), 0}; }
  const T& front() const { return chunks_.front().front(); }
  const T& back() const { return chunks_.back().back(); }

  const T& operator[](std::size_t index) const {
    auto [chunk, offset] = locate(index);
    return chunks_[chunk][offset];
  }
  T& operator[](std::size_t index) {
    auto [chunk, offset] = locate(index);
    return chunks_[chunk][offset];
  }
  const T& at(std::size_t index) const {
    if (index >= size_) throw std::out_of_range("ChunkedSequence::at");
    return (*this)[index];
  }

  void push_back(T value) {
    if (chunks_.empty() || chunks_.back().size() >= kChunk) {
      chunks_.emplace_back();
      chunks_.back().reserve(kChunk);
    }
    chunks_.back().push_back(std::move(value));
    ++size_;
  }

  // Puts `value` before the element at `index` (at the end when `index` is the
  // size). An index beyond the end throws std::out_of_range.
  void insert(std::size_t index, T value) {
    if (index > size_) throw std::out_of_range("ChunkedSequence::insert");
    if (index == size_) return push_back(std::move(value));
    auto [chunk, offset] = locate(index);
    std::vector<T>& into = chunks_[chunk];
    into.insert(into.begin() + static_cast<std::ptrdiff_t>(offset), std::move(value));
    ++size_;
    if (into.size() >= 2 * kChunk) split(chunk);
  }

  // Takes the element at `index` out and returns it; an index beyond the
  // last throws std::out_of_range.
  T erase(std::size_t index) {
    if (index >= size_) throw std::out_of_range("ChunkedSequence::erase");
    auto [chunk, offset] = locate(index);
    std::vector<T>& from = chunks_[chunk];
    T value = std::move(from[offset]);
    from.erase(from.begin() + static_cast<std::ptrdiff_t>(offset));
    --size_;
    mergeIfSmall(chunk);
    return value;
  }

  void clear() {
    chunks_.clear();
    size_ = 0;
  }

  // The first index whose element does not satisfy `pred`, for a sequence in
  // which every element that satisfies it comes before every one that does
  // not (as std::partition_point).
  template <typename Pred>
  std::size_t partitionPoint(Pred pred) const {
    // Chunks wholly before the point are skipped by their last element.
    std::size_t before = 0;
    for (const auto& chunk : chunks_) {
      if (!pred(chunk.back()))
        return before + static_cast<std::size_t>(
                            std::partition_point(chunk.begin(), chunk.end(), pred) - chunk.begin());
      before += chunk.size();
    }
    return before;
  }

  // The index of the first element equal to `value`, or the size when none is.
  template <typename U>
  std::size_t find(const U& value) const {
    std::size_t before = 0;
    for (const auto& chunk : chunks_) {
      auto it = std::find(chunk.begin(), chunk.end(), value);
      if (it != chunk.end()) return before + static_cast<std::size_t>(it - chunk.begin());
      before += chunk.size();
    }
    return before;
  }

  std::vector<T> toVector() const {
    std::vector<T> out;
    out.reserve(size_);
    for (const auto& chunk : chunks_) out.insert(out.end(), chunk.begin(), chunk.end());
    return out;
  }

  friend bool operator==(const ChunkedSequence& a, const ChunkedSequence& b) {
    return a.size_ == b.size_ && std::equal(a.begin(), a.end(), b.begin());
  }

 private:
  std::pair<std::size_t, std::size_t> locate(std::size_t index) const {
    // Most look-ups are near an end of the feed: the newest or oldest items.
    if (index >= size_ - chunks_.back().size())
      return {chunks_.size() - 1, index - (size_ - chunks_.back().size())};
    std::size_t chunk = 0;
    while (index >= chunks_[chunk].size()) index -= chunks_[chunk++].size();
    return {chunk, index};
  }

  void split(std::size_t chunk) {
    std::vector<T>& full = chunks_[chunk];
    std::vector<T> upper;
    upper.reserve(2 * kChunk);
    const auto half = full.begin() + static_cast<std::ptrdiff_t>(full.size() / 2);
    upper.assign(std::make_move_iterator(half), std::make_move_iterator(full.end()));
    full.erase(half, full.end());
    chunks_.insert(chunks_.begin() + static_cast<std::ptrdiff_t>(chunk) + 1, std::move(upper));
  }

  // A chunk that emptied goes; one that shrank joins a neighbour when the two
  // fit in one, so that removals never leave a long trail of tiny chunks.
  void mergeIfSmall(std::size_t chunk) {
    const auto at = [&](std::size_t c) { return chunks_.begin() + static_cast<std::ptrdiff_t>(c); };
    if (chunks_[chunk].empty()) {
      chunks_.erase(at(chunk));
      return;
    }
    if (chunks_[chunk].size() > kChunk / 2) return;
    for (std::size_t other : {chunk + 1, chunk - 1}) {
      if (other >= chunks_.size()) continue;  // also catches chunk - 1 below zero
      const std::size_t lo = std::min(chunk, other);
      if (chunks_[lo].size() + chunks_[lo + 1].size() > kChunk) continue;
      std::vector<T>& into = chunks_[lo];
      std::vector<T>& from = chunks_[lo + 1];
      into.insert(into.end(), std::make_move_iterator(from.begin()),
                  std::make_move_iterator(from.end()));
      chunks_.erase(at(lo + 1));
      return;
    }
  }

  Chunks chunks_;
  std::size_t size_ = 0;
};

}  // namespace zolvani
