// KvrsBridgeLocal.h - the tree side of the bridge: it is a client of every
// node of its subtrees, turns the notifications of other processes and the
// changes its scans find into changes to publish, and stores what comes from
// the broker.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "KvrsCommon.h"

// One change to publish. The key names the node (KvrsBridgeTopic.h).
struct KvrsBridgeChange {
    std::string m_strKey;
    KvrsValue m_value;        // the message's value, else the node's; may be absent
    uint32_t m_dwNumber = 1;  // the message number; 1 for what a scan found
};

bool KvrsSameValue(const KvrsValue& a, const KvrsValue& b);

class KvrsBridgeLocal {
public:
    // Creates each subtree's node when missing. vstrPaths: dotted paths.
    explicit KvrsBridgeLocal(const std::vector<std::string>& vstrPaths);
    ~KvrsBridgeLocal();
    KvrsBridgeLocal(const KvrsBridgeLocal&) = delete;
    KvrsBridgeLocal& operator=(const KvrsBridgeLocal&) = delete;

    // The keys of the subtrees' top nodes.
    const std::vector<std::string>& Prefixes() const { return m_vstrPrefixes; }
    bool IsWithin(const std::string& strKey) const;

    // Walks the subtrees: connects to new nodes, forgets removed ones, and
    // reports every node whose value differs from the one last seen (a new node
    // with a value included).
    void Scan(std::vector<KvrsBridgeChange>& vchange);
    // Takes the messages waiting in the default queue. A notification of
    // another process becomes a change; the bridge's own are dropped.
    void TakeMessages(std::vector<KvrsBridgeChange>& vchange);
    // Creates the node at strKey when missing, stores the value in it (when
    // present) and notifies its clients with dwNumber and the value. False when the key names no node
    // that can be made (a reference on the way, a value too large).
    bool Apply(const std::string& strKey, const KvrsValue& value, uint32_t dwNumber);

private:
    struct Tracked {
        KvRsNodeProxy m_node;
        KvrsValue m_seen;  // the node's value as last seen or stored
        bool m_bVisited = false;
    };

    Tracked& Track(const std::string& strKey, const KvRsNodeProxy& node, bool& bNew);
    void Forget(std::map<std::string, Tracked>::iterator it);
    void Walk(const KvRsNodeProxy& node, const std::string& strKey, std::vector<KvrsBridgeChange>& vchange);
    void Visit(const KvRsNodeProxy& node, const std::string& strKey, std::vector<KvrsBridgeChange>& vchange);

    std::vector<std::string> m_vstrPrefixes;
    std::vector<std::string> m_vstrPaths;
    std::map<std::string, Tracked> m_mapTracked;
    std::unordered_map<void*, std::string> m_mapKeyOfNode;  // node handle -> key
    // (value handle, node handle) of each notification the bridge made itself:
    // its own connection gets one message carrying that very value object.
    std::multiset<std::pair<void*, void*>> m_setOwn;
};
