// SegmentPool: what acknowledged segments leave to the next ones.
#ifndef TARN_SRC_SEGMENT_POOL_H_
#define TARN_SRC_SEGMENT_POOL_H_

#include <stddef.h>

#include <utility>
#include <vector>

#include "oxutils/relaxed.h"
#include "src/packet.h"
#include "src/segment_bytes.h"
#include "src/try_flag.h"

// Segments by their numbers, and one of them on its own: on its way into such a map it needs no
// more memory.
using SegmentMap = SeqMap<SegmentBytes>;
using SegmentNode = SegmentMap::node_type;

// Keeps spare segments, nodes and bytes. New ones are made only when there is none, so there are
// never more than were in use at a time; and those that nobody needed from one settle() to the next
// go. Any thread; none waits: who finds another one at it goes without. Giving allocates nothing.
class SegmentPool {
 public:
  SegmentPool() = default;
  SegmentPool(const SegmentPool&) = delete;
  SegmentPool& operator=(const SegmentPool&) = delete;

  // A segment whose bytes, `size` of them, are not initialised: a spare one if possible.
  SegmentNode take(size_t size) {
    SegmentNode segment = take_spare();
    if (segment.empty()) segment = make_node();
    segment.mapped().resize(size);
    return segment;
  }
  std::vector<SegmentNode> take(size_t count, size_t size);
  // Keeps the segment, or lets it go.
  void give(SegmentNode&& segment) {
    const TryFlag<>::Entry entry(flag_);
    if (entry && count_ < places_.size()) places_[count_++] = std::move(segment);
  }

  // A while is over.
  void settle();
  // Nothing is kept any more, nor room for it.
  void clear();

 private:
  static SegmentNode make_node();
  SegmentNode take_spare() {
    const TryFlag<>::Entry entry(flag_);
    if (!entry) return SegmentNode();
    if (count_ == 0) {
      make_room(1);
      return SegmentNode();
    }
    if (--count_ < unused_) unused_ = count_;
    return std::move(places_[count_]);
  }
  void take_spares(size_t count, std::vector<SegmentNode>& segments);
  // For so many more to come back.
  void make_room(size_t count);

  oxutils::relaxed<bool> is_clear_{true};
  TryFlag<> flag_;  // guards what follows
  std::vector<SegmentNode> places_;
  size_t count_ = 0;   // of the first places, which hold the spares
  size_t made_ = 0;    // spares and what may come back; what got lost as well
  size_t unused_ = 0;  // spare ones that nobody has needed since the last settle()
};

#endif  // TARN_SRC_SEGMENT_POOL_H_
