// RoundTripKvRs.h - the library's own round-trip peer (built only together
// with the shared library).
#pragma once

#include <memory>

#include "RoundTripPeers.h"

namespace kvcmp {

std::unique_ptr<RoundTripPeer> MakeKvRsPeer();
// Entry of the partner process: echoes cTotal pings; returns the exit status.
int KvRsPartnerMain(long cTotal);

}  // namespace kvcmp
