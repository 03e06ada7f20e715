#include "src/segment_pool.h"

#include <algorithm>
#include <cstddef>

SegmentNode SegmentPool::make_node() {
  SegmentMap maker;
  maker.try_emplace(0);
  return maker.extract(maker.begin());
}

std::vector<SegmentNode> SegmentPool::take(size_t count, size_t size) {
  std::vector<SegmentNode> segments;
  segments.reserve(count);
  take_spares(count, segments);
  while (segments.size() < count) segments.push_back(make_node());
  for (SegmentNode& segment : segments) segment.mapped().resize(size);
  return segments;
}

void SegmentPool::take_spares(size_t count, std::vector<SegmentNode>& segments) {
  const TryFlag<>::Entry entry(flag_);
  if (!entry) return;
  for (; count > 0 && count_ > 0; --count) segments.push_back(std::move(places_[--count_]));
  unused_ = std::min(unused_, count_);
  if (count > 0) make_room(count);
}

void SegmentPool::make_room(size_t count) {
  unused_ = 0;
  made_ += count;
  is_clear_ = false;
  if (made_ > places_.size()) places_.resize(std::max(made_, 2 * places_.size()));
}

void SegmentPool::settle() {
  const TryFlag<>::Entry entry(flag_);
  if (!entry) return;
  // The last ones in are the first ones out, so these are at the front. Their room goes as well.
  const auto first = places_.begin();
  if (unused_ > 0) places_.erase(first, first + static_cast<std::ptrdiff_t>(unused_));
  made_ -= std::min(made_, unused_);
  count_ -= unused_;
  unused_ = count_;
}

void SegmentPool::clear() {
  if (is_clear_) return;
  const TryFlag<>::Entry entry(flag_);
  if (!entry) return;
  std::vector<SegmentNode>().swap(places_);
  count_ = made_ = unused_ = 0;
  is_clear_ = true;
}
