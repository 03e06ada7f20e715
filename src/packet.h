// Packet: one stored reliable segment, and the map that keeps packets in sequence order.
#ifndef TARN_SRC_PACKET_H_
#define TARN_SRC_PACKET_H_

#include <map>

#include "src/data_view.h"
#include "src/seq_latter.h"

struct Packet {
  unsigned short seq = 0;
  DataView data;           // sending: the whole segment as framed; receiving: the payload
  unsigned char flag = 0;  // sending: 1, unused; receiving: 1 on the last fragment of a message
};

// Oldest first.
using PacketMap = std::map<unsigned short, Packet, SeqLatter>;

// The packet with exactly this number: the map's own notion of equality also accepts the one half
// the ring away.
template <typename Map>  // PacketMap, const or not
auto find_exact(Map& packets, unsigned short seq) -> decltype(packets.find(seq)) {
  const auto found = packets.find(seq);
  return found != packets.end() && found->first == seq ? found : packets.end();
}

#endif  // TARN_SRC_PACKET_H_
