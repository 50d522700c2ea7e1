// CRsCheckWalk.h - the walker behind CRsCheckSegment (private to the check).
//
// Every block the walk reaches is claimed once, with its kind; a block claimed
// as two kinds, or lying outside the live pool area, is reported and not
// followed. Counted objects also collect the links the tree holds on them, so
// that their reference counts can be held against what those links need.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "CRsCheck.h"
#include "CRsModel.h"

enum class CRsKind : uint8_t {
    Node,
    Value,
    Queue,
    MsgList,
    Msg,
    Connect,
    RefreshInfo,
    ChildList,  // counted objects
    NodeHln,
    ConnectHln,
    NodeTop,
    ConnectTop,
    MsgNode,
    Text,
    Bytes  // plain blocks
};

// How a link found in the tree counts on its target.
enum class CRsLink : uint8_t { Smart, Child, None };

class CRsChecker {
public:
    CRsChecker(KvCheckReport& report, const KvPoolCheck& pools) : m_report(report), m_pools(pools) {}

    // Walks from the root slot until nothing new is reached, then tests the
    // entry links, parent links and reference counts.
    void Run();
    void FillCensus(CRsCheckCensus& census) const;

private:
    enum class Claim { Bad, New, Seen };

    // A counted object reached by the walk.
    struct Obj {
        CRsKind m_eKind;
        int32_t m_cSmartLinks = 0;  // KvSmartPtr links the tree holds on it
        int32_t m_cChildLinks = 0;  // KvChildPtr links
        uint32_t m_ofsOwner = 0;    // child list, refresh info: their node; node: the node whose list holds it
        uint32_t m_ofsEntry = 0;    // node: the list entry that holds it
        bool m_bHeaderOk = true;    // false: not walked (wrong class or destroyed)
        bool m_bInTree = false;     // reached from the root through child lists
        bool m_bRoot = false;
        std::string m_strLabel;  // how reports name it
        std::string m_strPath;   // node: dotted path, when reached through the tree
    };

    // --- blocks and objects (CRsCheckWalk.cpp) ---------------------------------
    Claim ClaimBlock(uint32_t ofs, CRsKind eKind, uint32_t iPool, const std::string& strWhat);
    // Claims a counted object and counts the link on it; a new object is queued
    // for walking (tree nodes and child lists first, so that paths name nodes).
    Obj* LinkObject(uint32_t ofs, CRsKind eKind, CRsLink eLink, const std::string& strLabel, bool bTree = false,
                    bool* pbNew = nullptr);
    bool CheckObjectHeader(uint32_t ofs, Obj& obj);
    void CheckText(const KvString& str, const std::string& strWhat);
    std::string TextProblem(const KvString& str) const;
    std::string SafeText(const KvString& str) const;  // the text, shortened; "?" when unreadable
    static std::string NodeLabel(uint32_t ofs, const std::string& strPath);
    void Problem(const std::string& str) { m_report.Problem(str); }

    // --- one object of each kind (CRsCheckWalk.cpp) ------------------------------
    void WalkObject(uint32_t ofs);
    void WalkNode(uint32_t ofs, Obj& obj);
    void WalkValue(uint32_t ofs, Obj& obj);
    void WalkConnect(uint32_t ofs, Obj& obj);
    void WalkQueue(uint32_t ofs, Obj& obj);
    void WalkMsg(uint32_t ofs, Obj& obj);

    // --- lists (CRsCheckLists.cpp) -----------------------------------------------
    void WalkChildList(uint32_t ofs, Obj& obj);
    void WalkRefreshInfo(uint32_t ofs, Obj& obj);
    void WalkMsgList(uint32_t ofs, Obj& obj);
    // Tests every block the list's own check will read; true when it may run.
    template <class T>
    struct Prepared {
        std::vector<T*> m_vElems;
        std::vector<QTopNode<T>*> m_vTops;
    };
    template <class T>
    bool PrepareList(const HybridList<T>& lst, const std::string& strWhat, Prepared<T>& prep);
    template <class T>
    bool PrepareIndex(const HybridList<T>& lst, const std::string& strWhat, Prepared<T>& prep);
    // Runs the list's own check and claims its blocks; false when it is broken.
    template <class T>
    bool CheckList(const HybridList<T>& lst, CRsKind eElem, CRsKind eTop, const std::string& strWhat,
                   Prepared<T>& prep);
    std::string ElementProblem(const CRsNodeHln& hln) const;
    std::string ElementProblem(const CRsConnectHln& hln) const;

    // --- after the walk (CRsCheck.cpp) ---------------------------------------------
    void CheckEntryLinks();
    void CheckCounts();

    KvCheckReport& m_report;
    const KvPoolCheck& m_pools;
    struct Block {
        CRsKind m_eKind;
        uint32_t m_iPool;
    };
    std::unordered_map<uint32_t, Block> m_mapBlocks;  // every block reached
    std::unordered_map<uint32_t, Obj> m_mapObjs;      // the counted objects among them
    std::vector<uint32_t> m_vWork;                    // tree nodes and child lists still to walk
    std::vector<uint32_t> m_vLater;                   // every other object still to walk
    std::vector<uint32_t> m_vQueues;                  // queues in the order reached
};

// Name of a kind in report lines ("node", "child entry", ...).
const char* CRsKindName(CRsKind eKind);
