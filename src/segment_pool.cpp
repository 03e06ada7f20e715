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
  for (; count > 0 && !spares_.empty(); --count) {
    segments.push_back(std::move(spares_.back()));
    spares_.pop_back();
  }
  unused_ = std::min(unused_, spares_.size());
  if (count > 0) make_room(count);
}

void SegmentPool::make_room(size_t count) {
  unused_ = 0;
  made_ += count;
  is_clear_ = false;
  if (made_ > spares_.capacity()) spares_.reserve(std::max(made_, 2 * spares_.capacity()));
}

void SegmentPool::settle() {
  const TryFlag<>::Entry entry(flag_);
  if (!entry) return;
  made_ -= std::min(made_, unused_);
  // The last ones in are the first ones out, so these are what has not moved.
  spares_.erase(spares_.begin(), spares_.begin() + static_cast<std::ptrdiff_t>(unused_));
  unused_ = spares_.size();
}

void SegmentPool::clear() {
  if (is_clear_) return;
  const TryFlag<>::Entry entry(flag_);
  if (!entry) return;
  std::vector<SegmentNode>().swap(spares_);
  made_ = unused_ = 0;
  is_clear_ = true;
}
