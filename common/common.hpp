// The protocol core: wire codes, the block receive vector, the bounded wait and digests,
// requests and acknowledgements, incoming block processing and the transmit side.
#pragma once

#include "common/blk_rx_vector.hpp"
#include "common/digest.hpp"
#include "common/requests.hpp"
#include "common/rx_process.hpp"
#include "common/select_call.hpp"
#include "common/tx_state.hpp"
#include "common/wire.hpp"
#include "common/wire_codec.hpp"
