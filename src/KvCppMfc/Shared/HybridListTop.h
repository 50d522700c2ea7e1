// HybridListTop.h - QTopNode, one index entry of a HybridList (included by
// HybridList.h). Entries are 28-byte pool blocks, so they take the 32-byte class.
#pragma once

#include <cstddef>
#include <cstdint>

// Walks are chains of dependent loads through blocks scattered over the
// segment, so they fetch ahead: the element after the one being compared, and
// what its comparison will read. An element type tells the latter through an
// optional static PrefetchKey(const T&), called on an element already loaded.
template <class T>
inline auto KvHlPrefetchKey(const T* p, int) -> decltype(T::PrefetchKey(*p), void())
{
    T::PrefetchKey(*p);
}
template <class T>
inline void KvHlPrefetchKey(const T*, long)
{
}

// Called with the element about to be compared: starts the loads of its
// successor's key and of the element after that.
template <class T>
inline void KvHlPrefetchAhead(const T* pNext)
{
    if (pNext == nullptr)
        return;
    KvHlPrefetchKey(pNext, 0);
    __builtin_prefetch(pNext->GetNext());
}

#pragma pack(push, 1)
template <class T>
class QTopNode {
    KV_SHARED_CLASS(QTopNode)

public:
    // All links 0 and count 0; the delete-function index stays as allocated.
    QTopNode() : m_cCount(0) {}
    QTopNode(const QTopNode&) = delete;
    QTopNode& operator=(const QTopNode&) = delete;

    // What a search reports as the covering entry when the place lies before the
    // first element (all ones: never the address of an entry).
    static QTopNode* BeforeFirst() { return reinterpret_cast<QTopNode*>(~static_cast<uintptr_t>(0)); }

    bool IsLowest() const { return m_pChild.IsNull(); }
    QTopNode* GetNext() const { return m_pNext.Get(); }
    QTopNode* GetPrev() const { return m_pPrev.Get(); }
    QTopNode* GetChild() const { return m_pChild.Get(); }
    QTopNode* GetParent() const { return m_pParent.Get(); }
    T* GetBottom() const { return m_pBottom.Get(); }
    uint32_t GetCount() const { return m_cCount; }

    // The entry above that covers this entry's run: only the run's first entry
    // carries the link. Null on the top level.
    QTopNode* GetUpper() const
    {
        for (const QTopNode* q = this; q != nullptr; q = q->m_pPrev.Get())
            if (q->m_pParent.IsNotNull())
                return q->m_pParent.Get();
        return nullptr;
    }
    QTopNode* GetTopNode()
    {
        QTopNode* q = this;
        while (QTopNode* pUp = q->GetUpper())
            q = pUp;
        return q;
    }
    QTopNode* GetFirstOfLevel()
    {
        QTopNode* q = this;
        while (q->m_pPrev.IsNotNull())
            q = q->m_pPrev.Get();
        return q;
    }

    void SetChild(QTopNode* q)
    {
        m_pChild = q;
        q->m_pParent = this;
        m_pBottom = q->m_pBottom;
    }
    // An entry shares its bottom with the entries above it that start with it.
    void SetBottomNode(T* t)
    {
        for (QTopNode* q = this; q != nullptr; q = q->m_pParent.Get())
            q->m_pBottom = t;
    }

    // The level walk, from an entry of the top level: see HybridList. cmp(elem)
    // is the three-way comparison of the searched key against elem.
    template <class F>
    T* GetInsertionPoint(const F& cmp, QTopNode** ppCover, T** ppLeft, uint32_t dwSortType)
    {
        QTopNode* pLast = nullptr;
        for (QTopNode* q = this; q != nullptr && q->BottomPassesAhead(cmp, dwSortType); q = q->m_pNext.Get())
            pLast = q;
        if (pLast == nullptr) {
            *ppCover = BeforeFirst();
            *ppLeft = nullptr;
            return m_pBottom.Get();
        }
        while (pLast->m_pChild.IsNotNull()) {
            // The child starts where pLast starts, so it is known to pass.
            QTopNode* q = pLast->m_pChild.Get();
            for (QTopNode* r = q->m_pNext.Get(); r != nullptr && r->BottomPassesAhead(cmp, dwSortType);
                 r = r->m_pNext.Get())
                q = r;
            pLast = q;
        }
        return pLast->WalkBottom(pLast->m_pBottom.Get(), cmp, ppCover, ppLeft, dwSortType);
    }

    // The bottom walk from pFirst on (pFirst tested too).
    template <class F>
    T* GetBottomInsertionPoint(T* pFirst, const F& cmp, QTopNode** ppCover, T** ppLeft, uint32_t dwSortType)
    {
        if (pFirst == nullptr || !KvHlPasses(cmp(*pFirst), dwSortType)) {
            *ppCover = this;
            *ppLeft = nullptr;
            return pFirst;
        }
        return WalkBottom(pFirst, cmp, ppCover, ppLeft, dwSortType);
    }

    // Bookkeeping after an element went in (lowest level) / an entry went in
    // below (upper level). Always true.
    bool SubNodeInserted(T* pSub);
    bool SubNodeInserted(QTopNode* pSub);
    // Bookkeeping after an element was unlinked: pAfter is the element that
    // followed it. Always true.
    bool SubNodeRemoved(T* pSub, T* pAfter);
    bool SubNodeRemoved(QTopNode* pSub);

    // Links this new entry after pLeft and takes over the later half of pLeft's
    // run. pNewTop: a block for the new top level, when pLeft's level is the top
    // (taken here when not given).
    void InsertThisBetween(QTopNode* pLeft, QTopNode* pRight, QTopNode* pNewTop = nullptr);
    // Merges this entry into its previous one and deletes it.
    void Remove();

    KvsWord<int32_t> m_iDeleteFunction;
    KvsPtr<QTopNode> m_pPrev;
    KvsPtr<QTopNode> m_pNext;
    KvsWord<uint32_t> m_cCount;
    KvsPtr<QTopNode> m_pParent;
    KvsPtr<QTopNode> m_pChild;
    KvsPtr<T> m_pBottom;

private:
    template <class F>
    bool BottomPasses(const F& cmp, uint32_t dwSortType) const
    {
        const T* p = m_pBottom.Get();
        return p != nullptr && KvHlPasses(cmp(*p), dwSortType);
    }
    // The same on a level walk: first starts the loads for the next entry's test.
    template <class F>
    bool BottomPassesAhead(const F& cmp, uint32_t dwSortType) const
    {
        if (const QTopNode* qNext = m_pNext.Get()) {
            const T* pNextBottom = qNext->m_pBottom.Get();
            if (pNextBottom != nullptr)
                KvHlPrefetchKey(pNextBottom, 0);
            __builtin_prefetch(qNext->m_pNext.Get());
        }
        return BottomPasses(cmp, dwSortType);
    }

    // Follows the bottom list from pLeft (known to pass) while the key passes;
    // the cover follows the runs, so it names the entry that covers *ppLeft.
    template <class F>
    T* WalkBottom(T* pLeft, const F& cmp, QTopNode** ppCover, T** ppLeft, uint32_t dwSortType)
    {
        QTopNode* pCover = this;
        T* p = pLeft->GetNext();
        while (p != nullptr && (KvHlPrefetchAhead(p->GetNext()), KvHlPasses(cmp(*p), dwSortType))) {
            QTopNode* pNext = pCover->m_pNext.Get();
            if (pNext != nullptr && pNext->m_pBottom.Get() == p)
                pCover = pNext;
            pLeft = p;
            p = p->GetNext();
        }
        *ppCover = pCover;
        *ppLeft = pLeft;
        return p;
    }

    void Split();
    void Rebalance(uint32_t cMin);
    void AbsorbNext();
    void Unlink();
    static void Free(QTopNode* q) { KvSharedClassDelete<QTopNode>(q); }
};
#pragma pack(pop)

static_assert(sizeof(QTopNode<int>) == 28, "an index entry is 28 bytes");
static_assert(offsetof(QTopNode<int>, m_pPrev) == 4, "");
static_assert(offsetof(QTopNode<int>, m_pNext) == 8, "");
static_assert(offsetof(QTopNode<int>, m_cCount) == 12, "");
static_assert(offsetof(QTopNode<int>, m_pParent) == 16, "");
static_assert(offsetof(QTopNode<int>, m_pChild) == 20, "");
static_assert(offsetof(QTopNode<int>, m_pBottom) == 24, "");

// --- bookkeeping -------------------------------------------------------------

template <class T>
bool QTopNode<T>::SubNodeInserted(T* pSub)
{
    m_cCount += 1;
    // The first entry, or one that went in front of the run, is the new bottom.
    if (m_pBottom.IsNull() || pSub->GetNext() == m_pBottom.Get())
        SetBottomNode(pSub);
    if (m_cCount >= KVHL_SPLIT_LOWEST)
        Split();
    return true;
}

template <class T>
bool QTopNode<T>::SubNodeInserted(QTopNode* /*pSub*/)
{
    m_cCount += 1;
    if (m_cCount >= KVHL_SPLIT_UPPER)
        Split();
    return true;
}

template <class T>
void QTopNode<T>::Split()
{
    // Both blocks are taken before anything is linked: running out of pool
    // memory then leaves a valid (only oversized) index.
    QTopNode* pNew = KvNewShared<QTopNode>();
    QTopNode* pNewTop = nullptr;
    if (GetUpper() == nullptr) {
        try {
            pNewTop = KvNewShared<QTopNode>();
        } catch (...) {
            Free(pNew);
            throw;
        }
    }
    pNew->InsertThisBetween(this, m_pNext.Get(), pNewTop);
}

template <class T>
void QTopNode<T>::InsertThisBetween(QTopNode* pLeft, QTopNode* pRight, QTopNode* pNewTop)
{
    if (pLeft->m_pNext.Get() != pRight)
        KvAssertReport("false", "KvCppMfc/HybridList", 59);
    m_pPrev = pLeft;
    m_pNext = pRight;
    pLeft->m_pNext = this;
    if (pRight != nullptr)
        pRight->m_pPrev = this;

    m_cCount = pLeft->m_cCount / 2;
    pLeft->m_cCount -= m_cCount;
    if (pLeft->m_pChild.IsNotNull()) {
        QTopNode* q = pLeft->m_pChild.Get();
        for (uint32_t i = 0; i < pLeft->m_cCount && q != nullptr; ++i)
            q = q->m_pNext.Get();
        if (q != nullptr) {
            q->m_pParent = KvsPtr<QTopNode>();
            SetChild(q);
        }
    } else {
        T* p = pLeft->m_pBottom.Get();
        for (uint32_t i = 0; i < pLeft->m_cCount && p != nullptr; ++i)
            p = p->GetNext();
        m_pBottom = p;
    }

    if (QTopNode* pUpper = pLeft->GetUpper()) {
        pUpper->SubNodeInserted(this);
    } else {
        // This level was the top; it now has two entries, so a new top level
        // covers it.
        if (pNewTop == nullptr)
            pNewTop = KvNewShared<QTopNode>();
        pNewTop->m_cCount = 1;
        pNewTop->SetChild(pLeft->GetFirstOfLevel());
        pNewTop->SubNodeInserted(this);
    }
}

template <class T>
bool QTopNode<T>::SubNodeRemoved(T* pSub, T* pAfter)
{
    m_cCount -= 1;
    if (m_pBottom.Get() == pSub)
        SetBottomNode(m_cCount != 0 ? pAfter : nullptr);
    Rebalance(KVHL_MIN_LOWEST);
    return true;
}

template <class T>
bool QTopNode<T>::SubNodeRemoved(QTopNode* pSub)
{
    m_cCount -= 1;
    if (m_pChild.Get() == pSub) {
        pSub->m_pParent = KvsPtr<QTopNode>();
        QTopNode* pNew = m_cCount != 0 ? pSub->m_pNext.Get() : nullptr;
        m_pChild = pNew;
        if (pNew != nullptr) {
            pNew->m_pParent = this;
            SetBottomNode(pNew->m_pBottom.Get());
        }
    }
    Rebalance(KVHL_MIN_UPPER);
    return true;
}

template <class T>
void QTopNode<T>::Rebalance(uint32_t cMin)
{
    QTopNode* pUpper = GetUpper();
    QTopNode* pPrev = m_pPrev.Get();
    if ((pPrev != nullptr || pUpper != nullptr) && m_cCount >= cMin)
        return;
    if (pPrev == nullptr && pUpper == nullptr) {
        // The top level's only entry: with a single entry below it, the level
        // below becomes the top.
        if (m_cCount == 1 && m_pChild.IsNotNull() && m_pNext.IsNull()) {
            m_pChild->m_pParent = KvsPtr<QTopNode>();
            Free(this);
        }
        return;
    }
    if (pPrev != nullptr) {
        if (pUpper != nullptr)
            pUpper->SubNodeRemoved(this);
        Remove();  // deletes this
        return;
    }
    // The first entry of a lower level absorbs its next entry. Without one the
    // level above would already have collapsed onto this entry.
    if (m_pNext.IsNotNull())
        AbsorbNext();
}

template <class T>
void QTopNode<T>::AbsorbNext()
{
    QTopNode* pNext = m_pNext.Get();
    if (QTopNode* pNextUpper = pNext->GetUpper())
        pNextUpper->SubNodeRemoved(pNext);
    m_cCount += pNext->m_cCount;
    if (pNext->m_pChild.IsNotNull())
        pNext->m_pChild->m_pParent = KvsPtr<QTopNode>();
    pNext->m_pChild = KvsPtr<QTopNode>();
    pNext->m_cCount = 0;
    pNext->m_pBottom = KvsPtr<T>();
    pNext->Unlink();
    Free(pNext);
}

template <class T>
void QTopNode<T>::Remove()
{
    QTopNode* pPrev = m_pPrev.Get();
    pPrev->m_cCount += m_cCount;
    if (m_pChild.IsNotNull())
        m_pChild->m_pParent = KvsPtr<QTopNode>();
    m_pChild = KvsPtr<QTopNode>();
    Unlink();
    Free(this);
}

template <class T>
void QTopNode<T>::Unlink()
{
    if (m_pPrev.IsNotNull())
        m_pPrev->m_pNext = m_pNext;
    if (m_pNext.IsNotNull())
        m_pNext->m_pPrev = m_pPrev;
    m_pPrev = KvsPtr<QTopNode>();
    m_pNext = KvsPtr<QTopNode>();
    m_pParent = KvsPtr<QTopNode>();
}
