// RoundTripPeers.h - two processes bounce a counter back and forth; each peer
// is one way of doing that (shared atomics, a mutex, Boost message_queue, pipes,
// POSIX mq, this library's notifications).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace kvcmp {

class RoundTripPeer {
public:
    virtual ~RoundTripPeer() = default;
    virtual const char* Name() const = 0;
    // Runs before the partner exists: creates the channels.
    virtual bool Prepare() = 0;
    // Starts the partner process that echoes cTotal messages. The default forks
    // and runs Echo() in the child, pinned to the second CPU when there is one.
    virtual pid_t StartPartner(long cTotal);
    // Partner side: answers cTotal messages, numbered 1..cTotal, in order.
    virtual void Echo(long cTotal) = 0;
    // Sends message n (n >= 1) and waits for its answer.
    virtual void Ping(uint64_t n) = 0;
    // After the partner has ended: removes named objects.
    virtual void Finish() {}
};

// The peers that do not need the library.
std::vector<std::unique_ptr<RoundTripPeer>> MakeBasicPeers();

// Start of a partner process: dies with its parent, and runs on the second
// CPU when there are two.
void PreparePartner();

// Stops the program when a peer sees a wrong message: the figures would be void.
[[noreturn]] void RoundTripFailed(const char* pszPeer, const char* pszWhat);

}  // namespace kvcmp
