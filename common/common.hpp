// The protocol core: wire codes, the block receive vector, requests and acknowledgements,
// incoming block processing and the transmit side.
#pragma once

#include "common/blk_rx_vector.hpp"
#include "common/packet.hpp"
#include "common/tx_state.hpp"
#include "common/wire.hpp"
#include "common/wire_codec.hpp"
