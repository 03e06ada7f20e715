// Packet: one received reliable segment, and the maps that keep segments in sequence order.
#ifndef TARN_SRC_PACKET_H_
#define TARN_SRC_PACKET_H_

#include <map>

#include "src/data_view.h"
#include "src/seq_latter.h"

struct Packet {
  unsigned short seq = 0;
  DataView data;           // the payload
  unsigned char flag = 0;  // 1 on the last fragment of a message
};

// Oldest first.
template <typename T>
using SeqMap = std::map<unsigned short, T, SeqLatter>;
using PacketMap = SeqMap<Packet>;

// What is kept under exactly this number: the map's own notion of equality also accepts the one
// half the ring away.
template <typename Map>  // SeqMap, const or not
auto find_exact(Map& packets, unsigned short seq) -> decltype(packets.find(seq)) {
  const auto found = packets.find(seq);
  return found != packets.end() && found->first == seq ? found : packets.end();
}

#endif  // TARN_SRC_PACKET_H_
