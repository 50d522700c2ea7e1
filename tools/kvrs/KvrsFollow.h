// KvrsFollow.h - the nodes that `kvrs listen` is a client of: those named by
// its paths and patterns now, and those that match later when they are
// created. A pattern is a dotted path whose names may be "*" (any one name)
// or "#" (any number of names, none included), as in MQTT topic filters.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "KvRfrSvr.h"

class KvrsFollow {
public:
    // Checks the patterns; bSubtree adds ".#" to each.
    KvrsFollow(const std::vector<std::string>& vstrPatterns, bool bSubtree);
    ~KvrsFollow() { DisconnectAll(); }
    KvrsFollow(const KvrsFollow&) = delete;
    KvrsFollow& operator=(const KvrsFollow&) = delete;

    // True when some pattern can match nodes created later: listening then
    // needs the connection for all structural changes.
    bool FollowsCreation() const;
    // Connects to every node that matches now. A plain path must exist.
    // Returns the nodes connected, in tree order.
    std::vector<KvRsNodeProxy> ConnectExisting();
    // After a structural change: connects to the nodes that match now and
    // were not connected; returns them.
    std::vector<KvRsNodeProxy> ConnectNew();
    // A node was removed: its connection goes.
    void OnRemoved(const KvRsNodeProxy& node);
    bool IsConnected(const KvRsNodeProxy& node) const;
    // The target handle of the node's connection (0: not connected). A plain
    // path's node has the path's number (1, 2, ...); nodes found by patterns
    // get numbers after NextTarget(). Each connection has a handle of its own:
    // disconnecting one drops the queued messages of its handle.
    uintptr_t TargetOf(const KvRsNodeProxy& node) const;
    // The target handle after the patterns': the structural connection's.
    uintptr_t NextTarget() const { return m_vPatterns.size() + 1; }
    void DisconnectAll();
    // "a.b, plant.#" for the banner.
    std::string Describe() const;

private:
    struct Pattern {
        std::string m_strText;
        std::vector<std::string> m_vstrNames;
        bool m_bWild = false;
    };
    struct Connected {
        KvRsNodeProxy m_node;
        uintptr_t m_uTarget;
    };
    void Connect(const KvRsNodeProxy& node, uintptr_t uTarget);
    void Walk(const KvRsNodeProxy& node, std::vector<std::string>& vstrNames, std::vector<KvRsNodeProxy>* pv);
    // True when a wild pattern matches the names.
    bool Matches(const std::vector<std::string>& vstrNames) const;
    bool CouldMatchBelow(const std::vector<std::string>& vstrNames) const;

    std::vector<Pattern> m_vPatterns;
    std::vector<Connected> m_vConnected;
    uintptr_t m_uNextFound = 0;  // the last handle given to a node found by a pattern
};

// The names of a dotted path ("" has none).
std::vector<std::string> KvrsSplitPath(const std::string& strPath);
// True when the names match the pattern's names ("*" one, "#" any number).
bool KvrsPatternMatches(const std::vector<std::string>& vstrPattern, size_t iPattern,
                        const std::vector<std::string>& vstrNames, size_t iName);
