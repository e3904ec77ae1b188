// Display ranks of a stream's access units, for the subcommands that hand
// out one packet per picture (captions, time codes): the i-th packet belongs
// to the picture displayed i-th, not to the i-th access unit.
#ifndef QNVTOOL_PICTURE_ORDER_H
#define QNVTOOL_PICTURE_ORDER_H

#include <cstdint>
#include <vector>

#include "tools/qnvtool/access_units.h"

namespace qnvtool {

// One rank per unit, in decoding order: the picture's place in display
// order over the whole stream (a coded video sequence follows the one
// before it), or -1 for a unit that takes no place (the second field of an
// H.264 field pair, a RASL picture dropped after a starting CRA). Within a
// sequence pictures are ranked by their picture order count, as a decoder
// bumps them out within the SPS's reorder limit. MPEG-2 units keep their
// stream order.
std::vector<int64_t> displayRanks(const std::vector<uint8_t>& data, const std::vector<AccessUnit>& units,
                                  VideoCodec codec);

}  // namespace qnvtool

#endif
