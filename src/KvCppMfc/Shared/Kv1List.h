// Kv1List.h - a singly linked list whose nodes are pool blocks of the shared
// segment, linked by offset, so that every process can walk it (a queue's
// message list is one).
//
// Kv1Node<T> is a shared class of its own: whoever instantiates it registers
// Kv1Node<T> with the other shared classes, so that any process can free a node.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "KvSharedClass.h"
#include "KvSmartPtr.h"

#pragma pack(push, 1)
template <class T>
class Kv1Node {
    KV_SHARED_CLASS(Kv1Node)

public:
    // Leaves the delete-function index alone: the allocator has written it.
    Kv1Node() {}
    explicit Kv1Node(const T& t) : m_data(t) {}
    Kv1Node(const Kv1Node&) = delete;
    Kv1Node& operator=(const Kv1Node&) = delete;

    Kv1Node* GetNext() const { return m_pNext.Get(); }
    T& GetData() { return m_data; }

    // The element of a node, or the null element for no node: a walk can read
    // the element of the next node without testing for the end first.
    static const T& GetData(const Kv1Node* p) { return p != nullptr ? p->m_data : sm_tDummy; }

    KvsWord<int32_t> m_iDeleteFunction;
    KvsPtr<Kv1Node> m_pNext;
    T m_data;

    static inline const T sm_tDummy{};
};

// Embeddable in a shared object. The first word stands where the original layout
// had a virtual-table pointer and stays 0 (no address may live in the segment).
template <class T>
class Kv1List {
public:
    typedef Kv1Node<T> Node;

    // The delete-function index word is left alone: it matters only when the list
    // is a block of its own, and then its allocator has written it.
    Kv1List() : m_dwVtblPlaceholder(0), m_cCount(0) {}
    Kv1List(const Kv1List&) = delete;
    Kv1List& operator=(const Kv1List&) = delete;
    ~Kv1List() { RemoveAll(); }

    KvsPtr<Node> AddFirst(const T& t)
    {
        Node* p = KvNewShared<Node>(t);
        p->m_pNext = m_pHead;
        m_pHead = p;
        if (++m_cCount == 1)
            m_pTail = p;
        return KvsPtr<Node>(p);
    }

    KvsPtr<Node> AddLast(const T& t)
    {
        Node* p = KvNewShared<Node>(t);
        if (m_pTail.IsNotNull())
            m_pTail->m_pNext = p;
        m_pTail = p;
        if (++m_cCount == 1)
            m_pHead = p;
        return KvsPtr<Node>(p);
    }

    // Takes the first element out (its reference moves to the result); the null
    // element when the list is empty.
    T RemoveFirst()
    {
        Node* p = m_pHead.Get();
        if (p == nullptr)
            return T();
        m_pHead = p->m_pNext;
        T tResult(std::move(p->m_data));
        FreeNode(p);
        if (m_cCount-- == 1)
            m_pTail = KvsPtr<Node>();
        return tResult;
    }

    // Unlinks node, whose predecessor the caller knows (null: node is the head).
    // A predecessor that does not lead to node is refused: unlinking after it
    // would cut the list.
    T Remove(KvsPtr<Node> node, KvsPtr<Node> predecessor)
    {
        if (predecessor.IsNull())
            return RemoveFirst();
        if (node.IsNull() || predecessor->m_pNext != node)
            return T();
        Node* p = node.Get();
        predecessor->m_pNext = p->m_pNext;
        if (m_pTail == node)
            m_pTail = predecessor;
        T tResult(std::move(p->m_data));
        FreeNode(p);
        m_cCount -= 1;
        return tResult;
    }

    // Frees every node (releasing its element) and leaves the list empty.
    void RemoveAll()
    {
        KvsPtr<Node> p = m_pHead;
        m_pHead = KvsPtr<Node>();
        m_pTail = KvsPtr<Node>();
        m_cCount = 0;
        while (p.IsNotNull()) {
            Node* pNode = p.Get();
            p = pNode->m_pNext;
            FreeNode(pNode);
        }
    }

    KvsPtr<Node> GetHead() const { return m_pHead; }
    KvsPtr<Node> GetTail() const { return m_pTail; }
    int32_t GetCount() const { return m_cCount; }
    bool IsEmpty() const { return m_cCount == 0; }

    KvsWord<uint32_t> m_dwVtblPlaceholder;
    KvsWord<int32_t> m_iDeleteFunction;
    KvsPtr<Node> m_pHead;
    KvsPtr<Node> m_pTail;
    KvsWord<int32_t> m_cCount;

private:
    static void FreeNode(Node* p) { KvSharedClassDelete<Node>(p); }
};
#pragma pack(pop)

static_assert(sizeof(Kv1Node<KvSmartPtr<KvSmartPtrTarget>>) == 12, "a list node is 12 bytes");
static_assert(offsetof(Kv1Node<KvSmartPtr<KvSmartPtrTarget>>, m_pNext) == 4, "");
static_assert(offsetof(Kv1Node<KvSmartPtr<KvSmartPtrTarget>>, m_data) == 8, "");
static_assert(sizeof(Kv1List<KvSmartPtr<KvSmartPtrTarget>>) == 20, "an embedded list is 20 bytes");
static_assert(offsetof(Kv1List<KvSmartPtr<KvSmartPtrTarget>>, m_iDeleteFunction) == 4, "");
static_assert(offsetof(Kv1List<KvSmartPtr<KvSmartPtrTarget>>, m_pHead) == 8, "");
static_assert(offsetof(Kv1List<KvSmartPtr<KvSmartPtrTarget>>, m_pTail) == 12, "");
static_assert(offsetof(Kv1List<KvSmartPtr<KvSmartPtrTarget>>, m_cCount) == 16, "");
