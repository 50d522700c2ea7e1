// KvFuzzSupport.h - what the API fuzzers share: a quiet library, a private
// namespace, a free-standing node to work under (released, with everything
// made below it, after each input), pool balance and list checks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "KvFuzzPools.h"
#include "KvRfrSvr.h"
#include "KvRfrSvr/Internal/CRsModel.h"

// KvFuzzSupport.cpp defines LLVMFuzzerInitialize for the API fuzzers: it
// restarts the program in a namespace of its own when none is set (never fuzz a
// user's tree), silences message boxes and tones, and keeps the root alive for
// the process.

// Reads an input front to back; past its end every read gives 0 or "".
class KvFuzzInput {
public:
    KvFuzzInput(const uint8_t* pb, size_t cb) : m_pb(pb), m_cb(cb) {}
    bool AtEnd() const { return m_i >= m_cb; }
    uint8_t Byte() { return m_i < m_cb ? m_pb[m_i++] : 0; }
    uint32_t Word() { return Byte() | Byte() << 8 | Byte() << 16 | static_cast<uint32_t>(Byte()) << 24; }
    // Bytes up to the next NUL (which is consumed) or the end.
    std::string Text();

private:
    const uint8_t* m_pb;
    size_t m_cb;
    size_t m_i = 0;
};

// A node in no tree: what is made below it dies with it when the area goes.
class KvFuzzArea {
public:
    KvFuzzArea();
    ~KvFuzzArea();
    void* Handle() const { return m_pvHandle; }
    unsigned long Id() const { return m_dwId; }
    CRsNode* Node() const { return m_ptr.Get(); }

private:
    KvSmartPtr<CRsNode> m_ptr;
    void* m_pvHandle = nullptr;
    unsigned long m_dwId = 0;
};

// True once the segment has less than 1 MiB left to carve. Removed children
// stay allocated by design, so a long run fills the segment at last; from then
// on a failed creation is no finding. Says so once on standard error.
bool KvFuzzSegmentNearlyFull();

// Verifies every child list below pNode; aborts with a message on a fault.
void KvFuzzCheckTree(const CRsNode* pNode);

// Aborts with a message (a finding for libFuzzer).
[[noreturn]] void KvFuzzFail(const char* pszWhat);
