// kvrs_stress - the load test. Worker processes (this program again, as a child
// scenario) with several threads each hammer one shared subtree with a random
// mix of path creation, lookups, value writes, client and server connects and
// disconnects, notifications and polling. The parent then checks that
//   - every message sent was received exactly once (per sender and receiver),
//   - concurrent creation of one path made it once,
//   - no connection is left, and the pools grew by exactly what the tree grew
//     (a mirror area brought to the same shape must cost the same: no leak),
//   - the segment passes the consistency check.
//
// Exact accounting: a sender holds the global mutex while it lists the receivers
// of a node and notifies, so the list is exactly who gets the message. A
// receiver holds the mutex while it drains its queue and disconnects, so nothing
// it was sent is dropped with the connection. Every message carries (sender,
// sequence) in its value; both sides sum a hash of it per (sender, target) pair.
//
//   kvrs_stress [--seconds N]
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "KvRfrSvr.h"
#include "KvRfrSvr/Internal/CRsCheck.h"
#include "common/KvTestSupport.h"

namespace {

// Every parent keeps fewer than 30 children, so no child list ever splits its
// index: the pool footprint of a tree depends only on which nodes and values
// exist, never on the order they were made in.
constexpr int kHubs = 8;  // stress.hub0..7: connections and notifications
// 8 workers of 2 threads: more than 29 clients on one hub would split its index.
constexpr int kWorkers = 8, kThreads = 2;
constexpr uint32_t kMagic = 0x4B565354;
constexpr uintptr_t kTargetBase = 0x1000;  // a thread's clients and server: 0x1000 + thread
constexpr uintptr_t kStructBase = 0x8000;  // its structural-change connection (default queue)

struct Payload {
    uint32_t dwMagic, dwSender, dwSeq, dwHub;
};

uint64_t Hash(uint32_t dwSender, uint32_t dwSeq)
{
    // splitmix64: a lost message and a duplicated one never cancel in the sum.
    uint64_t x = (static_cast<uint64_t>(dwSender) << 32 | dwSeq) + 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// (sender, target) -> (count, hash sum), of the messages sent ('S') or received ('R').
typedef std::map<std::pair<char, std::pair<uint64_t, uint64_t>>, std::pair<uint64_t, uint64_t>> Ledger;

void Add(Ledger& led, char chKind, uint64_t qwSender, uint64_t qwTarget, uint64_t c, uint64_t sum)
{
    auto& e = led[{chKind, {qwSender, qwTarget}}];
    e.first += c;
    e.second += sum;
}

void SetValue(const KvRsNodeProxy& n, const void* pv, long cb)
{
    KvRsValueProxy v = KvRsCreateValue();
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), static_cast<unsigned char*>(const_cast<void*>(pv)), cb);
    KvRsSetNodeValue(n.GetHandle(), n.GetId(), v.GetHandle(), v.GetId());
}

class Worker {
public:
    Worker(int iWorker, int iThread) : m_iWorker(iWorker), m_iThread(iThread), m_dwId(iWorker * kThreads + iThread) {}

    void Run(double dSeconds)
    {
        m_q = KvRsCreateQueue(("stress" + std::to_string(m_dwId)).c_str());
        m_root = KvRsCreateNode("", nullptr, 0);
        for (int h = 0; h < kHubs; ++h)
            m_aHubs[h] = KvRsGetNode(("stress.hub" + std::to_string(h)).c_str());
        for (const auto tEnd = std::chrono::steady_clock::now() + std::chrono::duration<double>(dSeconds);
             std::chrono::steady_clock::now() < tEnd;)
            for (int i = 0; i < 64; ++i)
                Step();
        // Leave nothing behind: whatever was sent to us is taken first, under the
        // same hold of the mutex that ends our connections.
        KvRsRequestMutex();
        for (int h = 0; h < kHubs; ++h)
            for (int iKind = 0; iKind < 3; ++iKind)
                if (iKind == 0 ? m_abClient[h] : iKind == 1 ? m_abServer[h] : m_fStructural)
                    Toggle(iKind, h);
        Drain();
        KvRsReleaseMutex();
        Add(m_ledger, 'O', 0, 0, m_cOps, m_cErrors);
    }

    Ledger m_ledger;
    uint64_t m_cOps = 0, m_cErrors = 0;

private:
    void* Target() const { return reinterpret_cast<void*>(kTargetBase + m_dwId); }
    void* StructTarget() const { return reinterpret_cast<void*>(kStructBase + m_dwId); }
    uint32_t Rand(uint32_t n) { return static_cast<uint32_t>(m_rng() % n); }

    // A path of the "made" area: this worker's own part or the part all race on.
    std::string RandomPath()
    {
        std::string str = "stress.made." + (Rand(2) == 0 ? std::string("shared") : "w" + std::to_string(m_iWorker));
        str += ".a" + std::to_string(Rand(20));
        for (uint32_t i = 0, cDepth = Rand(3); i < cDepth; ++i)
            str += (i == 0 ? ".b" : ".c") + std::to_string(Rand(i == 0 ? 20 : 4));
        return str;
    }

    void Step()
    {
        m_cOps += 1;
        const uint32_t r = Rand(100);
        const int h = static_cast<int>(Rand(kHubs));
        const KvRsNodeProxy& hub = m_aHubs[h];
        if (r < 10) {
            m_cErrors += KvRsCreateNode(RandomPath().c_str(), nullptr, 0).IsNull() ? 1 : 0;
        } else if (r < 20) {
            KvRsNodeProxy n = KvRsGetNode(RandomPath().c_str());
            for (KvRsNodeProxy c = n.GetChild(); !c.IsNull(); c = n.GetChild(c))
                KvRsGetChildNodeCount(c.GetHandle(), c.GetId());
        } else if (r < 24) {
            m_cErrors += KvRsGetAncestorsDescendantNode(hub.GetHandle(), hub.GetId(), "made.shared").IsNull() ? 1 : 0;
        } else if (r < 36) {
            KvRsNodeProxy n = Rand(8) == 0 ? hub : KvRsGetNode(RandomPath().c_str());
            if (!n.IsNull())
                SetValue(n, std::string(40, static_cast<char>('a' + m_dwId)).data(), 1 + Rand(40));
        } else if (r < 52) {
            Toggle(r < 46 ? 0 : r < 50 || m_iThread != 0 ? 1 : 2, h);
        } else if (r < 76) {
            Notify(h, r < 70);
        } else {
            Drain();
        }
    }

    // Connects or disconnects kind 0, a client of hub h; 1, its server; 2, the
    // structural-change connection. A disconnect first takes whatever was sent,
    // under the same hold of the mutex. Only a thread that is the server ends it,
    // and only a hub without a server gets a new one: nobody is displaced.
    void Toggle(int iKind, int h)
    {
        const KvRsNodeProxy& hub = m_aHubs[h];
        bool& fOn = iKind == 0 ? m_abClient[h] : iKind == 1 ? m_abServer[h] : m_fStructural;
        const unsigned long id = static_cast<unsigned long>(h);
        KvRsRequestMutex();
        KVRSCONNECTINFO info;
        KvRsGetServer(hub.GetHandle(), hub.GetId(), &info);
        if (fOn)
            Drain();
        if (fOn && iKind == 0)
            KvRsDisconnectClient(hub.GetHandle(), hub.GetId(), Target(), id);
        else if (fOn && iKind == 1)
            KvRsDisconnectServer(hub.GetHandle(), hub.GetId());
        else if (fOn)
            KvRsDisconnectForAllStructuralChanges(StructTarget(), 0);
        else if (iKind == 0)
            KvRsConnectClientToQueue(hub.GetHandle(), hub.GetId(), Target(), id, m_q.GetHandle(), m_q.GetId());
        else if (iKind == 1 && info.pvTarget == nullptr)
            KvRsConnectServerToQueue(hub.GetHandle(), hub.GetId(), Target(), id, m_q.GetHandle(), m_q.GetId());
        else if (iKind == 2)
            KvRsConnectForAllStructuralChanges(StructTarget(), 0);
        fOn = fOn ? false : iKind != 1 || info.pvTarget == nullptr;
        KvRsReleaseMutex();
    }

    // The receivers of node n as they stand; the caller holds the mutex.
    static void AddClients(const KvRsNodeProxy& n, std::vector<void*>& vTargets)
    {
        std::vector<KVRSCONNECTINFO> a(static_cast<size_t>(KvRsGetClientCount(n.GetHandle(), n.GetId())));
        KvRsEnumClients(n.GetHandle(), n.GetId(), a.data(), static_cast<long>(a.size()));
        for (const KVRSCONNECTINFO& info : a)
            vTargets.push_back(info.pvTarget);
    }

    void Notify(int h, bool fClients)
    {
        const KvRsNodeProxy& hub = m_aHubs[h];
        const Payload payload{kMagic, m_dwId, ++m_dwSeq, static_cast<uint32_t>(h)};
        KvRsValueProxy v = KvRsCreateValue();
        KvRsSetValueBytes(v.GetHandle(), v.GetId(), reinterpret_cast<unsigned char*>(const_cast<Payload*>(&payload)),
                          sizeof(payload));
        // Bit 0x4 also reaches the parties connected for all structural changes.
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
        for (void* pv : vTargets)
            Add(m_ledger, 'S', m_dwId, reinterpret_cast<uintptr_t>(pv), 1, Hash(m_dwId, m_dwSeq));
    }

    // Takes every message waiting for this thread (the default queue is the
    // first thread's: it holds the structural changes only).
    void Drain()
    {
        for (KvRsMsgProxy m = KvRsGetQueueMsg(m_q.GetHandle(), m_q.GetId()); !m.IsNull();
             m = KvRsGetQueueMsg(m_q.GetHandle(), m_q.GetId()))
            Receive(m, false);
        for (KvRsMsgProxy m = m_iThread == 0 ? KvRsGetMsg() : KvRsMsgProxy(); !m.IsNull(); m = KvRsGetMsg())
            Receive(m, true);
    }

    void Receive(const KvRsMsgProxy& m, bool fDefaultQueue)
    {
        void* hTarget = nullptr;
        unsigned long idTarget = 0;
        KvRsGetMsgTarget(m.GetHandle(), m.GetId(), hTarget, idTarget);
        KvRsValueProxy v = KvRsGetMsgValue(m.GetHandle(), m.GetId());
        Payload p{};
        if (KvRsGetValueByteCount(v.GetHandle(), v.GetId()) == sizeof(p))
            KvRsGetValueBytes(v.GetHandle(), v.GetId(), reinterpret_cast<unsigned char*>(&p));
        const unsigned long dwType = KvRsGetMsgType(m.GetHandle(), m.GetId());
        const void* hNode = KvRsGetMsgChangedNode(m.GetHandle(), m.GetId()).GetHandle();
        const bool fTargetOk = fDefaultQueue ? hTarget == StructTarget() && idTarget == 0
                                             : hTarget == Target() && idTarget == p.dwHub;
        const bool fNodeOk = p.dwHub < kHubs &&
                             (hNode == m_aHubs[p.dwHub].GetHandle() || (fDefaultQueue && hNode == m_root.GetHandle()));
        if (p.dwMagic != kMagic || !fTargetOk || !fNodeOk || ((dwType >> 8) & 0xF) != p.dwHub)
            m_cErrors += 1;
        Add(m_ledger, 'R', p.dwSender, reinterpret_cast<uintptr_t>(hTarget), 1, Hash(p.dwSender, p.dwSeq));
    }

    const int m_iWorker, m_iThread;
    const uint32_t m_dwId;
    std::mt19937 m_rng{7919u + m_dwId};
    uint32_t m_dwSeq = 0;
    KvRsQueueProxy m_q;
    KvRsNodeProxy m_root, m_aHubs[kHubs];
    bool m_abClient[kHubs] = {}, m_abServer[kHubs] = {}, m_fStructural = false;
};

// args: worker, ledger file, seconds. Writes one line per ledger entry; ('O',
// 0, 0) holds the count of operations and of errors.
KV_CHILD_SCENARIO(StressWorker)
{
    std::vector<std::unique_ptr<Worker>> vWorkers;
    std::vector<std::thread> vThreads;
    for (int i = 0; i < kThreads; ++i) {
        vWorkers.push_back(std::make_unique<Worker>(std::stoi(args.at(0)), i));
        vThreads.emplace_back([p = vWorkers.back().get(), &args] { p->Run(std::stod(args.at(2))); });
    }
    std::ofstream out(args.at(1));
    for (size_t i = 0; i < vWorkers.size(); ++i) {
        vThreads[i].join();
        for (const auto& e : vWorkers[i]->m_ledger)
            out << e.first.first << " " << e.first.second.first << " " << e.first.second.second << " " << e.second.first
                << " " << e.second.second << "\n";
    }
    return out.good() ? 0 : 3;
}

// Makes the area pszTop the same way every time: hubs with values and refresh
// infos (a refresh info, once made, stays with its node: made now, the workers'
// first connections do not count as growth), and the "made" area.
void SetUpArea(const std::string& strTop)
{
    for (int h = 0; h < kHubs; ++h) {
        KvRsNodeProxy hub = KvRsCreateNode((strTop + ".hub" + std::to_string(h)).c_str(), nullptr, 0);
        SetValue(hub, "hub value of 24 bytes...", 24);
        KvRsConnectClient(hub.GetHandle(), hub.GetId(), reinterpret_cast<void*>(1), 1);
        KvRsDisconnectClient(hub.GetHandle(), hub.GetId(), reinterpret_cast<void*>(1), 1);
    }
    KvRsCreateNode((strTop + ".made.shared").c_str(), nullptr, 0);
}

// Copies the children of from (and their subtrees and their values' sizes) under
// to. Counts the nodes in *pcNodes and the names that occur twice among
// siblings (concurrent creation of one path must make it once) in *pcDuplicates.
void Mirror(const KvRsNodeProxy& from, const KvRsNodeProxy& to, long* pcNodes, long* pcDuplicates)
{
    std::string strPrev = "\x01";
    for (KvRsNodeProxy c = from.GetChild(); !c.IsNull(); c = from.GetChild(c), *pcNodes += 1) {
        std::string strName(static_cast<size_t>(KvRsGetNodeNameLength(c.GetHandle(), c.GetId())) + 1, '\0');
        KvRsGetNodeName(c.GetHandle(), c.GetId(), &strName[0]);
        strName.pop_back();
        *pcDuplicates += strName == strPrev ? 1 : 0;
        strPrev = strName;
        KvRsNodeProxy twin = KvRsAddChildNode(to.GetHandle(), to.GetId(), strName.c_str());
        KvRsValueProxy v = KvRsGetNodeValue(c.GetHandle(), c.GetId()),
                       vTwin = KvRsGetNodeValue(twin.GetHandle(), twin.GetId());
        const long cb = KvRsGetValueByteCount(v.GetHandle(), v.GetId());
        if (!v.IsNull() && (vTwin.IsNull() || KvRsGetValueByteCount(vTwin.GetHandle(), vTwin.GetId()) != cb))
            SetValue(twin, std::string(static_cast<size_t>(cb), 'm').data(), cb);
        Mirror(c, twin, pcNodes, pcDuplicates);
    }
}

bool Fail(const std::string& str)
{
    fprintf(stderr, "kvrs_stress: FAILED: %s\n", str.c_str());
    return false;
}

int RunParent(double dSeconds)
{
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    // The root's refresh info and the two areas exist before the baseline.
    KvRsConnectForAllStructuralChanges(reinterpret_cast<void*>(1), 1);
    KvRsDisconnectForAllStructuralChanges(reinterpret_cast<void*>(1), 1);
    SetUpArea("stress");
    SetUpArea("mirror");
    const KvPoolSnapshot before = KvTakePoolSnapshot();

    std::vector<pid_t> vPids;
    std::vector<std::string> vFiles;
    for (int w = 0; w < kWorkers; ++w) {
        vFiles.push_back(KvTestTempFile());
        vPids.push_back(KvTestSpawn("StressWorker", {std::to_string(w), vFiles.back(), std::to_string(dSeconds)}));
    }
    bool fOk = true;
    Ledger all;
    uint64_t cSent = 0, cLost = 0, cExtra = 0;
    for (int w = 0; w < kWorkers; ++w) {
        const int iExit = KvTestWait(vPids[static_cast<size_t>(w)], static_cast<int>(dSeconds * 4) + 120);
        if (iExit != 0)
            fOk = Fail("worker " + std::to_string(w) + " ended with status " + std::to_string(iExit));
        std::ifstream in(vFiles[static_cast<size_t>(w)]);
        char chKind;
        uint64_t qwSender, qwTarget, c, sum;
        while (in >> chKind >> qwSender >> qwTarget >> c >> sum)
            Add(all, chKind, qwSender, qwTarget, c, sum);
        unlink(vFiles[static_cast<size_t>(w)].c_str());
    }
    const std::pair<uint64_t, uint64_t> ops = all[{'O', {0, 0}}];
    // Sent and received tallies must match pair by pair.
    for (const auto& e : all) {  // (a look-up of a missing pair inserts a zero one: iterators stay valid)
        const bool fSent = e.first.first == 'S';
        if (!fSent && e.first.first != 'R')
            continue;
        const std::pair<uint64_t, uint64_t> other = all[{fSent ? 'R' : 'S', e.first.second}];
        cSent += fSent ? e.second.first : 0;
        (fSent ? cLost : cExtra) += e.second.first > other.first ? e.second.first - other.first : 0;
        cExtra += fSent && e.second.first == other.first && e.second.second != other.second ? 1 : 0;
    }
    printf("kvrs_stress  %d workers x %d threads, %.1f s: %llu operations, %llu messages sent, %llu lost, "
           "%llu duplicated, stray or altered\n",
           kWorkers, kThreads, dSeconds, static_cast<unsigned long long>(ops.first),
           static_cast<unsigned long long>(cSent), static_cast<unsigned long long>(cLost),
           static_cast<unsigned long long>(cExtra));
    if (cLost != 0 || cExtra != 0 || cSent == 0)
        fOk = Fail("messages were lost, duplicated or altered, or none was sent");
    if (ops.second != 0)
        fOk = Fail(std::to_string(ops.second) + " failed calls or malformed messages");

    // Nobody may still be connected once every worker has gone.
    for (int h = 0; h < kHubs; ++h) {
        KvRsNodeProxy hub = KvRsGetNode(("stress.hub" + std::to_string(h)).c_str());
        KVRSCONNECTINFO info;
        KvRsGetServer(hub.GetHandle(), hub.GetId(), &info);
        if (KvRsGetClientCount(hub.GetHandle(), hub.GetId()) != 0 || info.pvTarget != nullptr)
            fOk = Fail("hub" + std::to_string(h) + " still has a connection");
    }
    if (KvRsGetClientCount(root.GetHandle(), root.GetId()) != 0)
        fOk = Fail("the root still has structural-change clients");
    // The pools grew by what the stress area gained; the mirror, brought to the
    // same shape afterwards, must grow by exactly as much, pool by pool.
    const KvPoolSnapshot after = KvTakePoolSnapshot();
    long cNodes = 0, cDuplicates = 0;
    Mirror(KvRsGetNode("stress"), KvRsGetNode("mirror"), &cNodes, &cDuplicates);
    const KvPoolSnapshot mirrored = KvTakePoolSnapshot();
    for (size_t i = 0; i < before.size(); ++i)
        if (after[i] - before[i] != mirrored[i] - after[i])
            fOk = Fail("pool " + std::to_string(i) + ": the run left " + std::to_string(after[i] - before[i]) +
                       " blocks, the same tree takes " + std::to_string(mirrored[i] - after[i]));
    if (cDuplicates != 0)
        fOk = Fail(std::to_string(cDuplicates) + " paths were made more than once");

    KvCheckReport report;
    KvRsRequestMutex();
    CRsCheckSegment(report);
    KvRsReleaseMutex();
    for (const std::string& str : report.Problems())
        fOk = Fail("consistency check: " + str);
    printf("tree         %ld nodes in the stress area, consistency check %s\nresult       %s\n", cNodes,
           report.Ok() ? "passed" : "FAILED", fOk ? "PASSED" : "FAILED");
    return fOk ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    int iExit = 0;
    if (KvRunChildScenarioIfAsked(argc, argv, &iExit))
        return iExit;
    const double dSeconds = argc == 3 && strcmp(argv[1], "--seconds") == 0 ? atof(argv[2]) : argc == 1 ? 8 : 0;
    if (dSeconds <= 0) {
        fprintf(stderr, "usage: kvrs_stress [--seconds N]\n");
        return 2;
    }
    // The library attached when the program loaded. Never run on a user's own
    // tree: without a namespace of its own, start again with one.
    const char* pszNs = getenv("KVRFRSVR_NAMESPACE");
    if (pszNs == nullptr || *pszNs == '\0') {
        setenv("KVRFRSVR_NAMESPACE", ("stress." + std::to_string(getpid())).c_str(), 1);
        execv("/proc/self/exe", argv);
        perror("kvrs_stress: execv");
        return 1;
    }
    return RunParent(dSeconds);
}
