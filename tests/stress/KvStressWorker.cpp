// KvStressWorker.cpp - one worker process: its threads run the random mix until
// the time is up, then disconnect everything they hold and leave a ledger.
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "KvRfrSvr.h"
#include "KvStress.h"

namespace {

// The value every message carries.
struct KvStressPayload {
    uint32_t dwMagic;
    uint32_t dwSender;
    uint32_t dwSeq;
    uint32_t dwHub;
};

class KvStressThread {
public:
    KvStressThread(const KvStressOptions& opt, int iWorker, int iThread)
        : m_opt(opt), m_iWorker(iWorker), m_iThread(iThread),
          m_dwId(static_cast<uint32_t>(iWorker * opt.cThreads + iThread)),
          m_rng(opt.uSeed * 7919u + m_dwId)
    {
    }

    void Run()
    {
        m_q = KvRsCreateQueue(("stress" + std::to_string(m_dwId)).c_str());
        m_root = KvRsCreateNode("", nullptr, 0);
        for (int h = 0; h < kKvStressHubs; ++h)
            m_vHubs.push_back(KvRsGetNode(("stress.hub" + std::to_string(h)).c_str()));
        const auto tEnd = std::chrono::steady_clock::now() + std::chrono::duration<double>(m_opt.dSeconds);
        while (std::chrono::steady_clock::now() < tEnd) {
            for (int i = 0; i < 64; ++i)
                Step();
        }
        // Leave nothing behind: whatever was sent to us is taken first, under the
        // same hold of the mutex that ends our connections.
        KvRsRequestMutex();
        Drain();
        for (int h = 0; h < kKvStressHubs; ++h) {
            if (m_abClient[h])
                KvRsDisconnectClient(m_vHubs[h].GetHandle(), m_vHubs[h].GetId(), Target(), static_cast<unsigned long>(h));
            if (m_abServer[h])
                KvRsDisconnectServer(m_vHubs[h].GetHandle(), m_vHubs[h].GetId());
        }
        if (m_fStructural)
            KvRsDisconnectForAllStructuralChanges(StructTarget(), 0);
        KvRsReleaseMutex();
        m_vHubs.clear();
        m_root = KvRsNodeProxy();
        m_q = KvRsQueueProxy();
    }

    KvStressLedger m_ledger;

private:
    void* Target() const { return reinterpret_cast<void*>(kKvStressTargetBase + m_dwId); }
    void* StructTarget() const { return reinterpret_cast<void*>(kKvStressStructBase + m_dwId); }
    uint32_t Rand(uint32_t n) { return static_cast<uint32_t>(m_rng() % n); }

    // A random path of the "made" area: this worker's own part or the part all
    // workers race on.
    std::string RandomPath()
    {
        std::string str = "stress.made.";
        str += Rand(2) == 0 ? "shared" : "w" + std::to_string(m_iWorker);
        str += ".a" + std::to_string(Rand(kKvStressFanA));
        const uint32_t cDepth = Rand(3);
        if (cDepth >= 1)
            str += ".b" + std::to_string(Rand(kKvStressFanB));
        if (cDepth >= 2)
            str += ".c" + std::to_string(Rand(kKvStressFanC));
        return str;
    }

    void Step()
    {
        m_ledger.cOps += 1;
        const uint32_t r = Rand(100);
        const int h = static_cast<int>(Rand(kKvStressHubs));
        const KvRsNodeProxy& hub = m_vHubs[static_cast<size_t>(h)];
        if (r < 10) {
            const std::string strPath = RandomPath();
            if (KvRsCreateNode(strPath.c_str(), nullptr, 0).IsNull())
                m_ledger.Error("creating " + strPath + " failed");
            m_ledger.cCreates += 1;
        } else if (r < 28) {
            Lookup(hub);
        } else if (r < 36) {
            KvRsNodeProxy n = Rand(8) == 0 ? hub : KvRsGetNode(RandomPath().c_str());
            if (!n.IsNull())
                SetValue(n, 1 + Rand(40));
        } else if (r < 46) {
            ToggleClient(h, hub);
        } else if (r < 50) {
            ToggleServer(h, hub);
        } else if (r < 52 && m_iThread == 0) {
            ToggleStructural();
        } else if (r < 70) {
            Notify(h, hub, true);
        } else if (r < 76) {
            Notify(h, hub, false);
        } else {
            Drain();
        }
    }

    void Lookup(const KvRsNodeProxy& hub)
    {
        switch (Rand(4)) {
        case 0:
            KvRsGetNode(RandomPath().c_str());
            break;
        case 1: {
            KvRsNodeProxy area = KvRsGetNode(("stress.made.w" + std::to_string(m_iWorker)).c_str());
            for (KvRsNodeProxy c = area.GetChild(); !c.IsNull(); c = area.GetChild(c))
                KvRsGetChildNodeCount(c.GetHandle(), c.GetId());
            break;
        }
        case 2:
            if (KvRsGetAncestorsDescendantNode(hub.GetHandle(), hub.GetId(), "made.shared").IsNull())
                m_ledger.Error("made.shared not found from a hub");
            break;
        default: {
            KvRsValueProxy v = KvRsGetNodeValue(hub.GetHandle(), hub.GetId());
            std::vector<unsigned char> ab(static_cast<size_t>(KvRsGetValueByteCount(v.GetHandle(), v.GetId())));
            KvRsGetValueBytes(v.GetHandle(), v.GetId(), ab.data());
            break;
        }
        }
    }

    void SetValue(const KvRsNodeProxy& n, uint32_t cb)
    {
        unsigned char ab[64];
        memset(ab, static_cast<int>(m_dwId), sizeof(ab));
        KvRsValueProxy v = KvRsCreateValue();
        KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab, static_cast<long>(cb));
        KvRsSetNodeValue(n.GetHandle(), n.GetId(), v.GetHandle(), v.GetId());
    }

    void ToggleClient(int h, const KvRsNodeProxy& hub)
    {
        if (!m_abClient[h]) {
            KvRsConnectClientToQueue(hub.GetHandle(), hub.GetId(), Target(), static_cast<unsigned long>(h),
                                     m_q.GetHandle(), m_q.GetId());
            m_abClient[h] = true;
            return;
        }
        KvRsRequestMutex();
        Drain();
        KvRsDisconnectClient(hub.GetHandle(), hub.GetId(), Target(), static_cast<unsigned long>(h));
        KvRsReleaseMutex();
        m_abClient[h] = false;
    }

    // Only a thread that is the server ends it, and only a hub without a server
    // gets a new one: the server changes hands without anyone being displaced.
    void ToggleServer(int h, const KvRsNodeProxy& hub)
    {
        KvRsRequestMutex();
        if (m_abServer[h]) {
            Drain();
            KvRsDisconnectServer(hub.GetHandle(), hub.GetId());
            m_abServer[h] = false;
        } else {
            KVRSCONNECTINFO info;
            KvRsGetServer(hub.GetHandle(), hub.GetId(), &info);
            if (info.pvTarget == nullptr) {
                KvRsConnectServerToQueue(hub.GetHandle(), hub.GetId(), Target(), static_cast<unsigned long>(h),
                                         m_q.GetHandle(), m_q.GetId());
                m_abServer[h] = true;
            }
        }
        KvRsReleaseMutex();
    }

    void ToggleStructural()
    {
        if (!m_fStructural) {
            KvRsConnectForAllStructuralChanges(StructTarget(), 0);
            m_fStructural = true;
            return;
        }
        KvRsRequestMutex();
        Drain();
        KvRsDisconnectForAllStructuralChanges(StructTarget(), 0);
        KvRsReleaseMutex();
        m_fStructural = false;
    }

    // The receivers of node n as they stand; the caller holds the mutex.
    static void AddClients(const KvRsNodeProxy& n, std::vector<void*>& vTargets)
    {
        const long c = KvRsGetClientCount(n.GetHandle(), n.GetId());
        if (c <= 0)
            return;
        std::vector<KVRSCONNECTINFO> a(static_cast<size_t>(c));
        KvRsEnumClients(n.GetHandle(), n.GetId(), a.data(), c);
        for (const KVRSCONNECTINFO& info : a)
            vTargets.push_back(info.pvTarget);
    }

    void Notify(int h, const KvRsNodeProxy& hub, bool fClients)
    {
        const KvStressPayload payload{kKvStressMagic, m_dwId, ++m_dwSeq, static_cast<uint32_t>(h)};
        KvRsValueProxy v = KvRsCreateValue();
        KvRsSetValueBytes(v.GetHandle(), v.GetId(),
                          reinterpret_cast<unsigned char*>(const_cast<KvStressPayload*>(&payload)), sizeof(payload));
        if (KvRsGetValueByteCount(v.GetHandle(), v.GetId()) != sizeof(payload)) {
            m_ledger.Error("a message value could not be made");
            return;
        }
        // Bits 0x4 also reach the parties connected for all structural changes.
        const bool fStructural = fClients && Rand(4) == 0;
        const unsigned long dwType = (fClients ? 0x1000u : 0x2000u) | static_cast<unsigned>(h) << 8 |
                                     (fStructural ? 0x4u : 0x1u);
        std::vector<void*> vTargets;
        KvRsRequestMutex();
        if (fClients) {
            AddClients(hub, vTargets);
            if (fStructural)
                AddClients(m_root, vTargets);
            KvRsNotifyNodeClients(hub.GetHandle(), hub.GetId(), dwType, v.GetHandle(), v.GetId(), false);
        } else {
            KVRSCONNECTINFO info;
            KvRsGetServer(hub.GetHandle(), hub.GetId(), &info);
            if (info.pvTarget != nullptr)
                vTargets.push_back(info.pvTarget);
            KvRsNotifyNodeServer(hub.GetHandle(), hub.GetId(), dwType, v.GetHandle(), v.GetId());
        }
        KvRsReleaseMutex();
        const uint64_t qwHash = KvStressHash(m_dwId, m_dwSeq);
        for (void* pv : vTargets)
            m_ledger.mapSent[{m_dwId, reinterpret_cast<uintptr_t>(pv)}].Add(qwHash);
    }

    // Takes every message waiting for this thread.
    void Drain()
    {
        for (;;) {
            KvRsMsgProxy m = KvRsGetQueueMsg(m_q.GetHandle(), m_q.GetId());
            if (m.IsNull())
                break;
            Receive(m, false);
        }
        // The default queue is the first thread's: it holds the structural
        // changes only.
        while (m_iThread == 0) {
            KvRsMsgProxy m = KvRsGetMsg();
            if (m.IsNull())
                break;
            Receive(m, true);
        }
    }

    void Receive(const KvRsMsgProxy& m, bool fDefaultQueue)
    {
        void* hTarget = nullptr;
        unsigned long idTarget = 0;
        KvRsGetMsgTarget(m.GetHandle(), m.GetId(), hTarget, idTarget);
        KvRsValueProxy v = KvRsGetMsgValue(m.GetHandle(), m.GetId());
        KvStressPayload payload{};
        if (KvRsGetValueByteCount(v.GetHandle(), v.GetId()) != sizeof(payload)) {
            m_ledger.Error("a message without its value");
            return;
        }
        KvRsGetValueBytes(v.GetHandle(), v.GetId(), reinterpret_cast<unsigned char*>(&payload));
        const unsigned long dwType = KvRsGetMsgType(m.GetHandle(), m.GetId());
        KvRsNodeProxy node = KvRsGetMsgChangedNode(m.GetHandle(), m.GetId());
        const bool fTargetOk = fDefaultQueue ? hTarget == StructTarget() && idTarget == 0
                                             : hTarget == Target() && idTarget == payload.dwHub;
        const bool fNodeOk = payload.dwHub < kKvStressHubs &&
                             (node.GetHandle() == m_vHubs[payload.dwHub].GetHandle() ||
                              (fDefaultQueue && node.GetHandle() == m_root.GetHandle()));
        if (payload.dwMagic != kKvStressMagic || !fTargetOk || !fNodeOk || ((dwType >> 8) & 0xF) != payload.dwHub)
            m_ledger.Error("a malformed message (type " + std::to_string(dwType) + ")");
        m_ledger.mapRecv[{payload.dwSender, reinterpret_cast<uintptr_t>(hTarget)}].Add(
            KvStressHash(payload.dwSender, payload.dwSeq));
    }

    const KvStressOptions& m_opt;
    const int m_iWorker;
    const int m_iThread;
    const uint32_t m_dwId;
    std::mt19937 m_rng;
    uint32_t m_dwSeq = 0;
    KvRsQueueProxy m_q;
    KvRsNodeProxy m_root;
    std::vector<KvRsNodeProxy> m_vHubs;
    bool m_abClient[kKvStressHubs] = {};
    bool m_abServer[kKvStressHubs] = {};
    bool m_fStructural = false;
};

}  // namespace

int KvStressWorkerMain(const KvStressOptions& opt, int iWorker)
{
    // Our exit releases one root reference; this one is what it releases.
    {
        KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
        KvRsAddRef(root.GetHandle(), root.GetId());
    }
    std::vector<std::unique_ptr<KvStressThread>> vThreads;
    for (int i = 0; i < opt.cThreads; ++i)
        vThreads.push_back(std::make_unique<KvStressThread>(opt, iWorker, i));
    std::vector<std::thread> vRunning;
    for (auto& p : vThreads)
        vRunning.emplace_back([&p] { p->Run(); });
    for (std::thread& t : vRunning)
        t.join();
    KvStressLedger ledger;
    for (auto& p : vThreads)
        ledger.Merge(p->m_ledger);
    return ledger.Write(opt.strDir + "/w" + std::to_string(iWorker) + ".ledger") ? 0 : 3;
}
