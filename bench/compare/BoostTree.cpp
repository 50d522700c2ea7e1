// BoostTree.cpp - what a user builds instead of the library with
// Boost.Interprocess: one map keyed by the dotted path, in a 64 MiB
// managed_shared_memory segment, every access under an
// interprocess_recursive_mutex that lives in the segment. Notifications go
// either through a message_queue or through a deque in the segment.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <boost/container/deque.hpp>
#include <boost/container/map.hpp>
#include <boost/container/string.hpp>
#include <boost/container/vector.hpp>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_recursive_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>

#include "TreeSubject.h"

namespace bip = boost::interprocess;

namespace kvcmp {

namespace {

using Segment = bip::managed_shared_memory;
using SegmentManager = Segment::segment_manager;
template <class T>
using Alloc = bip::allocator<T, SegmentManager>;
using ShmString = boost::container::basic_string<char, std::char_traits<char>, Alloc<char>>;
using Bytes = boost::container::vector<unsigned char, Alloc<unsigned char>>;

struct Entry {
    uint32_t type = 0;
    uint64_t client = 0;  // the one client's target
    Bytes bytes;
    explicit Entry(const Alloc<unsigned char>& a) : bytes(a) {}
};

// Heterogeneous comparison, so that lookups need no string in the segment.
// string_view compares as unsigned bytes, the library's order of names.
struct PathLess {
    using is_transparent = void;
    static std::string_view View(const ShmString& s) { return {s.data(), s.size()}; }
    static std::string_view View(std::string_view s) { return s; }
    template <class A, class B>
    bool operator()(const A& a, const B& b) const
    {
        return View(a) < View(b);
    }
};

using Map = boost::container::map<ShmString, Entry, PathLess, Alloc<std::pair<const ShmString, Entry>>>;

// One notification as it travels: who, about what, and the value's bytes.
struct Msg {
    uint32_t type;
    uint32_t node;  // the entry's offset in the segment
    uint64_t target;
    unsigned char value[16];
};
using MsgDeque = boost::container::deque<Msg, Alloc<Msg>>;

const size_t kSegmentBytes = 64u << 20;

class BoostSubject : public TreeSubject {
    std::string m_strSegment, m_strQueue;
    std::unique_ptr<Segment> m_seg;
    std::unique_ptr<bip::message_queue> m_mq;
    Map* m_pMap = nullptr;
    MsgDeque* m_pDeque = nullptr;
    bip::interprocess_recursive_mutex* m_pMtx = nullptr;
    std::vector<Entry*> m_aHeld;
    std::string m_strKey;  // reused buffer for "parent.child"

    using Lock = bip::scoped_lock<bip::interprocess_recursive_mutex>;

    void FillMsg(Msg& m, Entry* pe)
    {
        m.type = 0x100;
        m.node = static_cast<uint32_t>(reinterpret_cast<char*>(pe) - static_cast<char*>(m_seg->get_address()));
        m.target = pe->client;
        memset(m.value, 0, sizeof(m.value));
        memcpy(m.value, pe->bytes.data(), std::min(pe->bytes.size(), sizeof(m.value)));
    }
    bool FindOrCreate(std::string_view key)
    {
        Lock lock(*m_pMtx);
        auto it = m_pMap->lower_bound(key);
        if (it == m_pMap->end() || PathLess::View(it->first) != key) {
            Alloc<char> a(m_seg->get_segment_manager());
            m_pMap->emplace_hint(it, ShmString(key.data(), key.size(), a), Entry(Alloc<unsigned char>(a)));
        }
        return true;
    }
    bool Find(std::string_view key)
    {
        Lock lock(*m_pMtx);
        return m_pMap->find(key) != m_pMap->end();
    }
    std::string_view ChildKey(const std::string& parentPath, const std::string& name)
    {
        m_strKey.assign(parentPath).append(1, '.').append(name);
        return m_strKey;
    }

public:
    ~BoostSubject() override
    {
        m_mq.reset();
        m_seg.reset();
        if (!m_strSegment.empty()) {
            bip::shared_memory_object::remove(m_strSegment.c_str());
            bip::message_queue::remove(m_strQueue.c_str());
        }
    }
    std::string Name() const override { return "Boost map in managed_shared_memory"; }
    bool Open() override
    {
        m_strSegment = "kvcmp." + std::to_string(getpid()) + ".map";
        m_strQueue = "kvcmp." + std::to_string(getpid()) + ".mq";
        bip::shared_memory_object::remove(m_strSegment.c_str());
        bip::message_queue::remove(m_strQueue.c_str());
        try {
            m_seg.reset(new Segment(bip::create_only, m_strSegment.c_str(), kSegmentBytes));
            Alloc<char> a(m_seg->get_segment_manager());
            m_pMtx = m_seg->construct<bip::interprocess_recursive_mutex>("mutex")();
            m_pMap = m_seg->construct<Map>("tree")(PathLess(), a);
            m_pDeque = m_seg->construct<MsgDeque>("queue")(a);
            m_mq.reset(new bip::message_queue(bip::create_only, m_strQueue.c_str(), 1024, sizeof(Msg)));
        } catch (const std::exception& e) {
            fprintf(stderr, "Boost segment: %s\n", e.what());
            return false;
        }
        return true;
    }
    double BytesUsed() override { return static_cast<double>(m_seg->get_size() - m_seg->get_free_memory()); }
    bool CreateLeaf(const std::string& path) override { return FindOrCreate(path); }
    bool LookupLeaf(const std::string& path) override { return Find(path); }
    bool CreateChild(const std::string& parentPath, const std::string& name) override
    {
        return FindOrCreate(ChildKey(parentPath, name));
    }
    bool LookupChild(const std::string& parentPath, const std::string& name) override
    {
        return Find(ChildKey(parentPath, name));
    }
    bool HoldLeaf(const std::string& path, size_t slot) override
    {
        Lock lock(*m_pMtx);
        auto it = m_pMap->find(std::string_view(path));
        if (it == m_pMap->end())
            return false;
        if (m_aHeld.size() <= slot)
            m_aHeld.resize(slot + 1);
        m_aHeld[slot] = &it->second;
        return true;
    }
    void SetValue(size_t slot, const unsigned char* pb16) override
    {
        Lock lock(*m_pMtx);
        m_aHeld[slot]->bytes.assign(pb16, pb16 + 16);
    }
    bool ConnectClient(size_t slot) override
    {
        Lock lock(*m_pMtx);
        m_aHeld[slot]->client = 1;
        return true;
    }
    std::vector<std::string> NotifyVariants() const override
    {
        return {"Boost map + message_queue", "Boost map + deque in the segment"};
    }
    bool NotifyTakeRelease(size_t slot, size_t variant) override
    {
        Msg m;
        if (variant == 0) {
            {
                Lock lock(*m_pMtx);
                FillMsg(m, m_aHeld[slot]);
            }
            m_mq->send(&m, sizeof(m), 0);
            size_t cb = 0;
            unsigned prio = 0;
            return m_mq->try_receive(&m, sizeof(m), cb, prio) && cb == sizeof(m);
        }
        {
            Lock lock(*m_pMtx);
            FillMsg(m, m_aHeld[slot]);
            m_pDeque->push_back(m);
        }
        Lock lock(*m_pMtx);
        if (m_pDeque->empty())
            return false;
        m = m_pDeque->front();
        m_pDeque->pop_front();
        return true;
    }
    unsigned long TrivialCall(size_t slot) override
    {
        Lock lock(*m_pMtx);
        return m_aHeld[slot]->type;
    }
};

}  // namespace

std::unique_ptr<TreeSubject> MakeBoostSubject()
{
    return std::unique_ptr<TreeSubject>(new BoostSubject());
}

}  // namespace kvcmp
