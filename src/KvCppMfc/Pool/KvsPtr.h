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
extern thread_local bool t_fKvsJournaling;
void KvsJournalSave(const void* pv, uint32_t cb);
inline void KvsSave(const void* pv, uint32_t cb)
{
    if (t_fKvsJournaling)
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
