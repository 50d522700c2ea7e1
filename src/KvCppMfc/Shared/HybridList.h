// HybridList.h - the sorted container of the shared segment.
//
// The elements form one singly linked bottom list in sort order. Above it sit
// index levels of QTopNode entries; each level is a doubly linked list and each
// entry covers a run of consecutive entries of the level below (or of elements,
// on the lowest level). The topmost level always has exactly one entry. A search
// walks each level from the top, descends, and ends with a short walk along the
// bottom list; insertion and removal only touch the entries around the place.
//
// The first entry of each run carries a parent link to the entry above that
// covers the run; every other entry has none. The first entry of the lowest level
// (the anchor) lives as long as the list and its bottom is the list's head.
//
// An element type T derives from HListSimpleNode<T> and provides
//   int Compare(const T& other) const            three-way, this against other
//   static int CompareKey(const K& key, const T&) three-way, key against element
// (the latter for every key type K used with FindKey / FindKeyInsertionPoint).
//
// QTopNode<T> is a shared class: whoever instantiates a HybridList<T> registers
// QTopNode<T> with the other shared classes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "../Diag/KvDiag.h"
#include "KvSharedClass.h"

// Sort types (QSL_SortTypes). The walk goes on past an element while the three-way
// comparison cmp of the searched key against it satisfies:
//   0: cmp >= 0  ascending, a new element goes after its equals
//   1: cmp <= 0  descending, a new element goes after its equals
//   2: cmp >  0  ascending, the place before the first equal (search)
//   3: cmp <  0  descending, the place before the first equal (search)
// Any other value stops at once: the first place is taken.
constexpr uint32_t KVHL_SORT_ASCENDING = 0;
constexpr uint32_t KVHL_SORT_DESCENDING = 1;
constexpr uint32_t KVHL_SEARCH_ASCENDING = 2;
constexpr uint32_t KVHL_SEARCH_DESCENDING = 3;

inline bool KvHlPasses(int cmp, uint32_t dwSortType)
{
    switch (dwSortType) {
    case 0: return cmp >= 0;
    case 1: return cmp <= 0;
    case 2: return cmp > 0;
    case 3: return cmp < 0;
    default: return false;
    }
}

// The search rule that finds the first element equal to a key.
inline uint32_t KvHlSearchTypeFor(uint32_t dwSortType)
{
    return dwSortType == KVHL_SORT_DESCENDING ? KVHL_SEARCH_DESCENDING : KVHL_SEARCH_ASCENDING;
}

// Split and merge limits, all deliberate: a lowest-level entry splits when its
// count reaches 30, an upper entry at 8; after a removal a lowest-level entry
// under 10, or an upper entry under 3, merges into a neighbour.
constexpr uint32_t KVHL_SPLIT_LOWEST = 30;
constexpr uint32_t KVHL_SPLIT_UPPER = 8;
constexpr uint32_t KVHL_MIN_LOWEST = 10;
constexpr uint32_t KVHL_MIN_UPPER = 3;

#pragma pack(push, 1)
// Base of every element: the element's delete-function index first (written by
// its allocator, left alone here), then the link to the next element. The bottom
// list is singly linked on purpose, so unlinking needs the predecessor.
template <class T>
class HListSimpleNode {
public:
    HListSimpleNode() {}
    HListSimpleNode(const HListSimpleNode&) = delete;
    HListSimpleNode& operator=(const HListSimpleNode&) = delete;

    T* GetNext() const { return m_pNext.Get(); }

    void InsertThisBetween(T* pLeft, T* pRight)
    {
        if (pLeft != nullptr)
            pLeft->m_pNext = Self();
        m_pNext = pRight;
    }
    void Remove(T* pPrev)
    {
        if (pPrev != nullptr)
            pPrev->m_pNext = m_pNext;
        m_pNext = KvsPtr<T>();
    }

    KvsWord<int32_t> m_iDeleteFunction;
    KvsPtr<T> m_pNext;

private:
    T* Self() { return static_cast<T*>(this); }
};
#pragma pack(pop)

#include "HybridListTop.h"

#pragma pack(push, 1)
// Embedded in its owner; must be constructed inside an attached segment (it
// allocates the anchor). The elements belong to the owner: the destructor frees
// the index entries only, so owners take their elements out first.
template <class T>
class HybridList {
public:
    typedef QTopNode<T> Top;

    explicit HybridList(uint32_t dwSortType = KVHL_SORT_ASCENDING, bool bOwnsEntries = false)
        : m_dwVtblPlaceholder(0), m_dwSortType(dwSortType), m_bOwnsEntries(bOwnsEntries ? 1 : 0), m_cEntries(0)
    {
        m_pAnchor = KvNewShared<Top>();
    }
    HybridList(const HybridList&) = delete;
    HybridList& operator=(const HybridList&) = delete;
    ~HybridList() { FreeIndex(); }

    // The element before which pElem belongs under the given rule (null: at the
    // end); *ppLeft gets the element after which it belongs (null: at the front),
    // *ppCover the lowest-level entry covering *ppLeft, or Top::BeforeFirst() when
    // the place is before the first element. An empty list answers null, null and
    // the anchor.
    T* FindInsertionPoint(const T* pElem, Top** ppCover, T** ppLeft, uint32_t dwSortType) const
    {
        return Locate([pElem](const T& e) { return pElem->Compare(e); }, ppCover, ppLeft, dwSortType);
    }
    template <class K>
    T* FindKeyInsertionPoint(const K& key, Top** ppCover, T** ppLeft, uint32_t dwSortType) const
    {
        return Locate([&key](const T& e) { return T::CompareKey(key, e); }, ppCover, ppLeft, dwSortType);
    }

    // The first element equal to pElem / to key, or null.
    T* Find(const T* pElem) const
    {
        if (pElem == nullptr)
            return nullptr;
        return FindFirstEqual([pElem](const T& e) { return pElem->Compare(e); });
    }
    template <class K>
    T* FindKey(const K& key) const
    {
        return FindFirstEqual([&key](const T& e) { return T::CompareKey(key, e); });
    }

    // Links pElem in at its place under the list's own sort type.
    void Insert(T* pElem)
    {
        if (pElem == nullptr)
            return;
        Top* pCover = nullptr;
        T* pLeft = nullptr;
        T* pRight = FindInsertionPoint(pElem, &pCover, &pLeft, m_dwSortType);
        pElem->InsertThisBetween(pLeft, pRight);
        m_cEntries += 1;
        if (pCover == Top::BeforeFirst())
            pCover = m_pAnchor.Get();
        pCover->SubNodeInserted(pElem);
    }

    // Unlinks exactly pElem (identity, not only an equal key); false when it is
    // not in the list, which then is left as it was.
    bool Remove(T* pElem);

    // Takes the first element out; null when the list is empty.
    T* RemoveFirst()
    {
        Top* pAnchor = m_pAnchor.Get();
        T* pFirst = pAnchor->m_pBottom.Get();
        if (pFirst == nullptr)
            return nullptr;
        T* pAfter = pFirst->GetNext();
        pFirst->Remove(nullptr);
        m_cEntries -= 1;
        pAnchor->SubNodeRemoved(pFirst, pAfter);
        return pFirst;
    }

    T* GetFirst() const { return m_pAnchor.IsNotNull() ? m_pAnchor->m_pBottom.Get() : nullptr; }
    uint32_t GetCount() const { return m_cEntries; }
    uint32_t GetSortType() const { return m_dwSortType; }
    Top* GetAnchor() const { return m_pAnchor.Get(); }

    // Verifies every invariant of the list and its index; on failure describes
    // the first violation found in *pstrError (when given) and returns false.
    bool CheckStructure(std::string* pstrError) const;

    KvsWord<uint32_t> m_dwVtblPlaceholder;  // stands where the original had its virtual table; stays 0
    KvsPtr<Top> m_pAnchor;
    KvsWord<uint32_t> m_dwSortType;
    KvsWord<uint8_t> m_bOwnsEntries;
    KvsWord<uint32_t> m_cEntries;

private:
    template <class F>
    T* Locate(const F& cmp, Top** ppCover, T** ppLeft, uint32_t dwSortType) const
    {
        Top* pAnchor = m_pAnchor.Get();
        if (pAnchor->m_pBottom.IsNull()) {
            *ppCover = pAnchor;
            *ppLeft = nullptr;
            return nullptr;
        }
        return pAnchor->GetTopNode()->GetInsertionPoint(cmp, ppCover, ppLeft, dwSortType);
    }

    template <class F>
    T* FindFirstEqual(const F& cmp) const
    {
        Top* pCover = nullptr;
        T* pLeft = nullptr;
        T* p = Locate(cmp, &pCover, &pLeft, KvHlSearchTypeFor(m_dwSortType));
        return p != nullptr && cmp(*p) == 0 ? p : nullptr;
    }

    void FreeIndex();
};
#pragma pack(pop)

#include "HybridListImpl.h"
