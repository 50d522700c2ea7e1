// RoundTripKvRs.h - the library's own round-trip peer (built only together
// with the shared library).
#pragma once

#include <memory>

#include "RoundTripPeers.h"

namespace kvcmp {

// How a side learns of its message: polling the count, blocking in
// KvRsWaitMsg, or epoll on the descriptor of KvRsGetWaitFd.
enum class KvRsReceive { Poll, Wait, Epoll };

std::unique_ptr<RoundTripPeer> MakeKvRsPeer(KvRsReceive eHow);
// Entry of the partner process: echoes cTotal pings; returns the exit status.
int KvRsPartnerMain(long cTotal, KvRsReceive eHow);

}  // namespace kvcmp
