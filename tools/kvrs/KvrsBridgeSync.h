// KvrsBridgeSync.h - what the bridge publishes and what it takes from the
// broker, so that bridged trees converge.
//
// Every change carries a stamp: the time (microseconds since 1970, wall clock
// of the machine that made it) and the client id of the bridge that made it.
// A bridge keeps, per node, the stamp and value it last published or took, and
// takes from the broker only what is newer; when the broker holds something
// older (two bridges republished after the broker came back), it republishes
// its own. So the newest change wins everywhere, whatever order the broker
// delivers in. Values that were in the tree before the bridge started carry
// time 0; retained values of plain clients (no stamp) count as time 0 with an
// empty id, live ones as the time they arrive.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "KvrsBridgeLocal.h"
#include "KvrsBridgeMqtt.h"

class KvrsBridgeSync {
public:
    KvrsBridgeSync(KvrsBridgeLocal& local, KvrsBridgeMqtt& mqtt, const std::string& strRoot,
                   const std::string& strOrigin);

    // Changes of the local tree; bInitial for the first scan.
    void OnLocalChanges(const std::vector<KvrsBridgeChange>& vchange, bool bInitial);
    // A publish from the broker.
    void OnIncoming(const KvrsBridgeIncoming& in);
    // After every (re)connection: the broker may have lost everything.
    void Republish();

    long PublishedCount() const { return m_cPublished; }
    long AppliedCount() const { return m_cApplied; }

private:
    struct Synced {
        KvrsValue m_value;  // as last published or taken; absent: nothing retained
        uint32_t m_dwNumber = 1;
        int64_t m_tStamp = 0;
        std::string m_strOrigin;
    };

    void Publish(const std::string& strKey, const Synced& synced, bool bResync);
    int64_t NextStamp();
    static bool Older(int64_t tStamp, const std::string& strOrigin, const Synced& synced);

    KvrsBridgeLocal& m_local;
    KvrsBridgeMqtt& m_mqtt;
    std::string m_strRoot;
    std::string m_strOrigin;
    std::map<std::string, Synced> m_mapSynced;
    int64_t m_tLastStamp = 0;
    long m_cPublished = 0;
    long m_cApplied = 0;
};
