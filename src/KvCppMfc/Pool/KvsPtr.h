// KvsPtr.h - the offset pointer of the shared segment.
//
// Each process maps the segment at an address of its own, so no address is ever
// stored in the segment: a link is the unsigned 32-bit offset of its target from
// the segment's start, 0 meaning null (offset 0 is the header and never an object).
#pragma once

#include <cstddef>
#include <cstdint>

// Per-process statics of the segment, kept apart from KvGranularity so that the
// offset pointer (which KvGranularity itself uses) can be defined first.
struct KvGranularityStatics {
    static inline char* _pvBase = nullptr;  // where this process mapped the segment
    static inline uint32_t _stMax = 0;      // the segment's size

    static void* _CalcPtr(uint32_t ofs) { return ofs != 0 ? _pvBase + ofs : nullptr; }
    static uint32_t _CalcOffset(const void* pv)
    {
        return pv != nullptr ? static_cast<uint32_t>(static_cast<const char*>(pv) - _pvBase) : 0;
    }
};

// --- the write path ------------------------------------------------------------
// Every change the tree's code makes to a word of the segment goes through
// KvsSave first: the offset pointer below, and KvsWord and KvsWriteBytes
// (KvsWord.h), do it for their callers. Inside a section of the global mutex it
// records the old bytes in the section's journal (KvTreeJournal.h), so that the
// section can be undone when its process dies; outside one it costs a test of
// a thread-local flag. Built with KV_JOURNAL=0 (for measuring), it is nothing.
#ifndef KV_JOURNAL
#define KV_JOURNAL 1
#endif
#if KV_JOURNAL
// What the write path needs of its thread, in one thread-local block (one
// address to find). A call writes the same words again and again (every
// counted reference walks the smart counts of its object's ancestors up and
// down), and only the first write of a word since the last commit is
// recorded: the words known as saved, or as needing no record, are kept by a
// hash of their offset, and a write to one of them costs a load and a compare.
// A key is (generation << 40 | size << 32 | offset); a commit starts a new
// generation, which makes every key stale at once.
struct KvsThreadState {
    static constexpr uint32_t kcKnown = 256;
    uint64_t aqwKnown[kcKnown];
    uint64_t qwGeneration;    // already shifted left by 40
    bool fJournaling;         // inside a section of the global mutex (and not undoing it)
    bool fSectionOpen;        // inside a section of the global mutex
    bool fSplit;              // the call in progress was larger than the journal
    uint32_t cDeferredFrees;  // FREE records of the section, run at its commit
};
// Declared __thread, not thread_local: a constant-initialised block needs no
// initialisation check on each access, which every write would pay for.
extern __thread KvsThreadState t_kvs;
void KvsJournalSave(const void* pv, uint32_t cb);
inline uint64_t KvsKnownKey(uint32_t ofs, uint32_t cb)
{
    return t_kvs.qwGeneration | (static_cast<uint64_t>(cb) << 32) | ofs;
}
// Objects lie 16- or 64-byte aligned, so the offset's low bits say little: a
// multiplicative hash spreads them.
inline uint32_t KvsKnownSlot(uint64_t qwKey)
{
    return (static_cast<uint32_t>(qwKey) * 0x9E3779B1u) >> 24;
}
static_assert(KvsThreadState::kcKnown == 1u << (32 - 24), "the slot takes the hash's top bits");
inline void KvsSave(const void* pv, uint32_t cb)
{
    if (!t_kvs.fJournaling)
        return;
    // Not in the segment (a pointer or word on the stack): nothing to save.
    const uintptr_t ofs = static_cast<uintptr_t>(static_cast<const char*>(pv) - KvGranularityStatics::_pvBase);
    if (ofs >= KvGranularityStatics::_stMax)
        return;
    const uint64_t qwKey = KvsKnownKey(static_cast<uint32_t>(ofs), cb);
    if (t_kvs.aqwKnown[KvsKnownSlot(qwKey)] != qwKey)
        KvsJournalSave(pv, cb);
}
#else
inline void KvsSave(const void*, uint32_t) {}
#endif

typedef void (*KvDeleteFunction)(void* pv);
KvDeleteFunction KvGetDeleteFunction(int32_t iIndex);  // KvGranularity::_GetDeleteFunction

#pragma pack(push, 1)
template <class T>
class KvsPtr {
public:
    KvsPtr() : m_ofs(0) {}
    KvsPtr(const KvsPtr&) = default;
    explicit KvsPtr(const T* p) : m_ofs(KvGranularityStatics::_CalcOffset(p)) {}
    static KvsPtr FromOffset(uint32_t ofs)
    {
        KvsPtr p;
        p.m_ofs = ofs;
        return p;
    }

    T* Get() const { return static_cast<T*>(KvGranularityStatics::_CalcPtr(m_ofs)); }
    T* operator->() const { return Get(); }
    T& operator*() const { return *Get(); }
    explicit operator bool() const { return m_ofs != 0; }
    uint32_t Offset() const { return m_ofs; }
    bool IsNull() const { return m_ofs == 0; }
    bool IsNotNull() const { return m_ofs != 0; }
    KvsPtr& operator=(const T* p)
    {
        Set(KvGranularityStatics::_CalcOffset(p));
        return *this;
    }
    KvsPtr& operator=(const KvsPtr& o)
    {
        Set(o.m_ofs);
        return *this;
    }
    bool operator==(const KvsPtr& o) const { return m_ofs == o.m_ofs; }
    bool operator!=(const KvsPtr& o) const { return m_ofs != o.m_ofs; }

    // Deletes the object through the delete function whose index is the object's
    // first field, then clears the offset. Callers test for null first: a null
    // offset faults, as it always has.
    void Delete()
    {
        void* pv = KvGranularityStatics::_CalcPtr(m_ofs);
        const int32_t iIndex = *static_cast<const int32_t*>(pv);
        KvGetDeleteFunction(iIndex)(pv);
        Set(0);
    }

private:
    void Set(uint32_t ofs)
    {
        KvsSave(this, sizeof(*this));
        m_ofs = ofs;
    }
    uint32_t m_ofs;
};
#pragma pack(pop)

static_assert(sizeof(KvsPtr<char>) == 4, "an offset pointer is one 32-bit word");
