/*
 * KvRfrSvr.h - public interface of the KvRfrSvr data-refresh server library.
 *
 * The processes of one machine share a tree of named data nodes that lives in
 * one shared-memory segment, and tell each other when data changes.  Every
 * process that loads libKvRfrSvr.so maps the segment ("KVRFRSVR_MEM", 64 MiB)
 * and serialises its calls through one process-shared mutex
 * ("KVRFRSVR_GLOBAL_MUTEX").  The tree exists while at least one process has
 * the library loaded; it is never written to disk.
 *
 * OBJECTS AND HANDLES
 *
 *   Nodes, values, queues and messages live in the segment.  Callers hold them
 *   through handles: a pair (void* handle, unsigned long id).  The handle is
 *   the object's offset in the segment (0 is the null handle), so a handle
 *   obtained in one process names the same object in every other process and
 *   may be passed around as a number.  The id is the object's 32-bit id taken
 *   when the handle was made; the library carries it but never checks it.
 *
 *   Functions that return an object return a proxy (KvRsNodeProxy, ...): a
 *   small record that owns exactly one counted reference on the object and
 *   releases it in its destructor.  Copying a proxy takes another reference,
 *   assigning one releases the old reference first.  An empty proxy has the
 *   null handle and id 0.
 *
 * NODES
 *
 *   A node has a name, a 32-bit type word and either a value (a typed run of
 *   bytes) or a reference to another node; a parent node keeps its children
 *   sorted by name (unsigned byte order).  Paths join child names with ".".
 *   Type bits owned by the library: 0x1 value, 0x2 reference, 0x4 parent,
 *   0x10000 const (KVRS_TYPE_...); all other bits are the caller's.
 *
 * NOTIFICATION
 *
 *   A process attaches itself to a node as its single server or as one of its
 *   clients, naming itself by a target (an opaque void* and an id that come
 *   back in every message) and a queue.  Notifying puts one message per
 *   receiver into the receiver's queue.  The notification number's low 16 bits
 *   are the message number; bit 0x10000 puts the message at the front of the
 *   queue; 0x2 passes the notification on through reference nodes; any of 0x2,
 *   0x4, 0x8 also reaches the parties connected for all structural changes
 *   (KVRS_NOTIFY_...).
 *   Every process has a default queue, "_ProcessDefaultQueue"; receivers poll.
 *
 * RESULTS AND FAILURES
 *
 *   No failure ever leaves a function (the exception is KvRsCreateMsg, see
 *   Caveats).  A fault or internal error inside a call is reported as a
 *   message box on standard error ("KvRfrSvr.dll: <text>", with the exception
 *   code such as 0xC0000005 for an access violation) and the call returns its
 *   neutral result: 0, false, a null text, an untouched output, or an empty
 *   proxy.  Below, "null handle: ignored" means the function checks the handle
 *   and quietly returns the neutral result; "null handle: reported" means the
 *   function uses the null object, faults, reports it, and returns the
 *   neutral result.
 *
 * CAVEATS
 *
 *   - Handles are not validated.  A null handle is checked by some functions
 *     only (see each function).  A stale handle (object destroyed, its block
 *     reused) or a wrong one is used as it is: the call reads whatever lies at
 *     that offset, which usually faults and is reported, but may also act on
 *     an unrelated object.  Compare ids yourself if you keep handles long.
 *   - Every call holds the global mutex for its whole body.  The mutex is
 *     recursive per thread: KvRsRequestMutex/KvRsReleaseMutex make a sequence
 *     of calls atomic with respect to other processes and threads; calls made
 *     while holding it do not block.  Release it as often as you requested
 *     it.  A process killed while holding it leaves it to the next waiter.
 *   - KvRsCreateMsg runs without the mutex and without fault protection.
 *     When other processes or threads use the library, wrap it in
 *     KvRsRequestMutex()/KvRsReleaseMutex(); a fault inside it (a stale
 *     handle) reaches the caller.
 *   - Reading a value takes two calls, its size (KvRsGetValueByteCount) and
 *     then its bytes (KvRsGetValueBytes), which copies as many bytes as the
 *     value holds at that moment.  Another process may set the value in
 *     between: hold KvRsRequestMutex across both calls, or size the buffer
 *     for KVRS_VALUE_MAX_BYTES.  The same holds for a node's name and its
 *     length.
 *   - KvRsForAllNodes is not atomic: each step takes the mutex on its own and
 *     the callback runs without it (unless you hold it).
 *   - Nothing is pushed to a process: poll KvRsGetMsgCount/KvRsGetMsg (or a
 *     queue of your own) at a rate that suits you.  KvRsGetMsgCount answers
 *     as if it took the mutex, but when nobody holds the mutex it only reads
 *     (checking that nobody took it meanwhile), so a tight polling loop does
 *     not slow down the processes that notify it.  While another thread
 *     holds the mutex, it waits like every other call.
 *   - Process exit (exit(), return from main, dlclose) first removes every
 *     connection, queue entry and message of the process from the tree, then
 *     releases one reference on the root node and the default queue and
 *     unmaps the segment.  Every process releases one root reference at exit,
 *     the one that created the root as well as every other; when processes
 *     end in an order that lets the root's count reach zero, the root and with
 *     it the whole tree die while others still run.  To keep the tree for
 *     the others, let every process add the root reference that its own exit
 *     will release, once, at its start:
 *         KvRsNodeProxy root = KvRsCreateNode("", 0, 0);
 *         KvRsAddRef(root.GetHandle(), root.GetId());
 *     A process killed by a signal (or that calls exec) runs no clean-up;
 *     another process does it on its behalf ("reaping": its connections,
 *     the messages waiting for it, its root and default-queue references):
 *     every process's start-up, any call whose allocation would otherwise
 *     fail for lack of memory, `kvrs serve` every second and `kvrs reap`.
 *     What its own proxies held stays held.
 *   - fork(): the child is a process of its own with its own default queue
 *     and its own clean-up at exit; it does not release what the parent
 *     holds.  Proxies copied into the child name the same objects but their
 *     references belong to the parent: forget them in the child rather than
 *     let them release (use _exit() or release exactly what you took).
 *     The child makes its default queue under the global mutex before fork()
 *     returns in it: a thread that holds KvRsRequestMutex while it forks
 *     leaves the child blocked until the mutex is released, and a parent
 *     that then waits for the child while holding the mutex deadlocks.
 *     Release the mutex before fork().  A child that calls exec() or _exit()
 *     runs no clean-up; like a killed process it is reaped (see below), which
 *     also corrects the attachment count that `kvrs stats` shows.
 *   - Namespaces: processes share a tree when they share a namespace, which
 *     is $KVRFRSVR_NAMESPACE when set and non-empty, else one per user.  It
 *     is read when the library loads.  32-bit and 64-bit processes never
 *     share a tree.  When the last process of a namespace exits, the tree and
 *     every named object of the namespace are gone.
 *   - All processes of a namespace must run the same build of the library; a
 *     process of another build refuses to attach: its calls then return
 *     neutral results and a message on standard error says why.
 *   - Debug output: set BDC_DEBUG_FILE to a size limit in bytes to get a
 *     debug file (named after the executable with ".KvRfrSvr.err"),
 *     KVLOGFILEDIR to choose its directory.  0, an empty or non-numeric
 *     value means no file; a value of 4294967296 or more (or a negative
 *     one) is taken as the largest limit, 4294967295 bytes.
 */
#ifndef KVRFRSVR_H
#define KVRFRSVR_H

/* Version of this interface (the CMake package and pkg-config file carry the
 * same), and as one number for #if: major * 10000 + minor * 100 + patch. */
#define KVRFRSVR_VERSION_MAJOR 1
#define KVRFRSVR_VERSION_MINOR 1
#define KVRFRSVR_VERSION_PATCH 0
#define KVRFRSVR_VERSION (KVRFRSVR_VERSION_MAJOR * 10000 + KVRFRSVR_VERSION_MINOR * 100 + KVRFRSVR_VERSION_PATCH)

/* Type bits of a node that the library owns (KvRsGetNodeType and
 * KvRsSetNodeType); every other bit is the caller's and kept as given.  A
 * node is a value node, a reference node or a parent: at most one of the
 * three kind bits is set, and changing them by hand changes what the library
 * takes the node for. */
#define KVRS_TYPE_VALUE 0x1u     /* holds a value */
#define KVRS_TYPE_REF 0x2u       /* refers to another node */
#define KVRS_TYPE_PARENT 0x4u    /* has (or had) children */
#define KVRS_TYPE_KIND_MASK 0x7u /* the three kind bits */
#define KVRS_TYPE_CONST 0x10000u /* value and children can no longer change */

/* Parts of a notification number (KvRsNotifyNodeServer/Clients). */
#define KVRS_NOTIFY_MSG_MASK 0xFFFFu /* the message number the receiver sees */
#define KVRS_NOTIFY_THROUGH_REF 0x2u /* passes on through reference nodes */
/* Any of 0x2, 0x4, 0x8 also reaches the parties connected for all structural
 * changes. */
#define KVRS_NOTIFY_STRUCTURAL_MASK 0xEu
#define KVRS_NOTIFY_FRONT 0x10000u /* queue the message at the front */

/* Limits. */
#define KVRS_PATH_MAX 8191u             /* longest path, in bytes without its NUL */
#define KVRS_VALUE_MAX_BYTES 0x1000000u /* largest value: 16 MiB */

/* Exported functions carry this mark; nothing else of the library is visible. */
#if defined(__GNUC__)
#define KVRFRSVR_API __attribute__((visibility("default")))
#else
#define KVRFRSVR_API
#endif

class KvRsProxy;
class KvRsNodeProxy;
class KvRsValueProxy;
class KvRsQueueProxy;
class KvRsMsgProxy;
struct KVRSCONNECTINFO;

/* ------------------------------------------------------------------------ */
/* Library lock                                                             */
/* ------------------------------------------------------------------------ */

/* Waits without limit for the global mutex (recursive for the calling
 * thread).  An owner that died leaves it to the caller. */
KVRFRSVR_API void KvRsRequestMutex(void);
/* Releases the global mutex once. */
KVRFRSVR_API void KvRsReleaseMutex(void);

/* ------------------------------------------------------------------------ */
/* Handle references                                                        */
/* ------------------------------------------------------------------------ */

/* Adds one counted reference to the object.  Null handle: ignored. */
KVRFRSVR_API void KvRsAddRef(void* handle, unsigned long id);
/* Drops one counted reference; the object is destroyed when none remains.
 * Returns true when a reference was dropped.  Null handle: false. */
KVRFRSVR_API bool KvRsRmvRef(void* handle, unsigned long id);

/* ------------------------------------------------------------------------ */
/* Nodes                                                                    */
/* ------------------------------------------------------------------------ */

/* Finds or creates every node along path, starting at the parent (null
 * parent: the root), and returns the last.  An empty path returns the start
 * node itself; KvRsCreateNode("", 0, 0) is the root.  Paths of 8192 bytes or
 * more are refused (reported; empty proxy). */
KVRFRSVR_API KvRsNodeProxy KvRsCreateNode(const char* path, void* hParent, unsigned long idParent);
/* The node at path below the root; empty proxy when there is none.  A null
 * path is reported. */
KVRFRSVR_API KvRsNodeProxy KvRsGetNode(const char* path);
/* The child called name (taken whole, "." included).  Null handle: ignored. */
KVRFRSVR_API KvRsNodeProxy KvRsGetChildNode(void* hParent, unsigned long idParent, const char* name);
/* Child iterator: with a null child handle the parent's first child, else the
 * child that follows the given child in its own parent's (sorted) child list;
 * empty proxy at the end.  Null parent handle: ignored. */
KVRFRSVR_API KvRsNodeProxy KvRsGetChildNode(void* hParent, unsigned long idParent, void* hChild, unsigned long idChild);
/* The node at path below the parent.  Null handle: reported. */
KVRFRSVR_API KvRsNodeProxy KvRsGetDescendantNode(void* hParent, unsigned long idParent, const char* path);
/* Looks path up below the node, then below each ancestor in turn, nearest
 * first; empty proxy when no ancestor has it. */
KVRFRSVR_API KvRsNodeProxy KvRsGetAncestorsDescendantNode(void* hNode, unsigned long idNode, const char* path);
/* Returns the child called name, creating it when missing (the name is not
 * split at ".").  Null handle: ignored. */
KVRFRSVR_API KvRsNodeProxy KvRsAddChildNode(void* hParent, unsigned long idParent, const char* name);
/* Unlinks the child called name.  Null handle: ignored. */
KVRFRSVR_API void KvRsRemoveChildNode(void* hParent, unsigned long idParent, const char* name);
/* Number of children.  Null handle: 0. */
KVRFRSVR_API long KvRsGetChildNodeCount(void* hNode, unsigned long idNode);
/* Copies the name and its NUL into pszName, sized from
 * KvRsGetNodeNameLength() + 1.  Null handle: buffer untouched. */
KVRFRSVR_API void KvRsGetNodeName(void* hNode, unsigned long idNode, char* pszName);
/* Length of the name in bytes, without the NUL.  Null handle: 0. */
KVRFRSVR_API long KvRsGetNodeNameLength(void* hNode, unsigned long idNode);
/* The parent; empty for the root.  Null handle: ignored. */
KVRFRSVR_API KvRsNodeProxy KvRsGetNodeParent(void* hNode, unsigned long idNode);
/* The type word.  Null handle: 0. */
KVRFRSVR_API unsigned long KvRsGetNodeType(void* hNode, unsigned long idNode);
/* Sets the type word.  Null handle: ignored. */
KVRFRSVR_API void KvRsSetNodeType(void* hNode, unsigned long idNode, unsigned long type);
/* The node's value.  Null handle: ignored. */
KVRFRSVR_API KvRsValueProxy KvRsGetNodeValue(void* hNode, unsigned long idNode);
/* Stores the value (a null value handle clears it).  Null node: reported. */
KVRFRSVR_API void KvRsSetNodeValue(void* hNode, unsigned long idNode, void* hValue, unsigned long idValue);
/* The node this node refers to.  Null handle: ignored. */
KVRFRSVR_API KvRsNodeProxy KvRsGetRefNode(void* hNode, unsigned long idNode);
/* Makes the node refer to hRef (null clears it).  Null node: reported. */
KVRFRSVR_API void KvRsSetRefNode(void* hNode, unsigned long idNode, void* hRef, unsigned long idRef);
/* Meant as a walk of the whole tree, but its start is looked up with a null
 * path, which is reported: fn is called once with an empty proxy (unless
 * fSkipStart) and the result is fn's answer (true when not called).  To walk
 * the whole tree, pass KvRsCreateNode("", 0, 0) to the overload below. */
KVRFRSVR_API bool KvRsForAllNodes(bool (*fn)(KvRsNodeProxy& node, void* pv), void* pv, bool fSkipStart);
/* Depth-first pre-order walk from start (children in sorted order); fn
 * returns false to stop, and the walk then returns false.  fSkipStart leaves
 * out start itself, not its children.  Not atomic (see Caveats). */
KVRFRSVR_API bool KvRsForAllNodes(bool (*fn)(KvRsNodeProxy& node, void* pv), KvRsNodeProxy& start, void* pv,
                                  bool fSkipStart);
/* Connects the caller, by its target pair, as a client of the root through
 * its default queue: it then hears of every notification whose number has
 * any of the bits 0x2, 0x4, 0x8. */
KVRFRSVR_API void KvRsConnectForAllStructuralChanges(void* hTarget, unsigned long idTarget);
/* Undoes one KvRsConnectForAllStructuralChanges of the same target. */
KVRFRSVR_API void KvRsDisconnectForAllStructuralChanges(void* hTarget, unsigned long idTarget);

/* ------------------------------------------------------------------------ */
/* Connections and notification                                             */
/* ------------------------------------------------------------------------ */

/* Makes the caller the node's server (messages go to the default queue); a
 * second connect updates the server.  Null handle: ignored. */
KVRFRSVR_API void KvRsConnectServer(void* hNode, unsigned long idNode, void* hTarget, unsigned long idTarget);
/* The same with a queue of the caller's.  Null node: ignored. */
KVRFRSVR_API void KvRsConnectServerToQueue(void* hNode, unsigned long idNode, void* hTarget, unsigned long idTarget,
                                           void* hQueue, unsigned long idQueue);
/* Fills one record with the server's connection; untouched when the node has
 * no server.  Null handle: ignored. */
KVRFRSVR_API void KvRsGetServer(void* hNode, unsigned long idNode, KVRSCONNECTINFO* pInfo);
/* Drops the server, however often it connected.  Null handle: ignored. */
KVRFRSVR_API void KvRsDisconnectServer(void* hNode, unsigned long idNode);
/* Adds the caller as a client (default queue).  Connecting the same target
 * handle twice from one process counts twice on one connection.  Null
 * handle: ignored. */
KVRFRSVR_API void KvRsConnectClient(void* hNode, unsigned long idNode, void* hTarget, unsigned long idTarget);
/* The same with a queue of the caller's.  Null node: ignored. */
KVRFRSVR_API void KvRsConnectClientToQueue(void* hNode, unsigned long idNode, void* hTarget, unsigned long idTarget,
                                           void* hQueue, unsigned long idQueue);
/* Undoes one connect of this process's client with that target handle; the
 * last one removes it and its queued messages.  Null handle: ignored. */
KVRFRSVR_API void KvRsDisconnectClient(void* hNode, unsigned long idNode, void* hTarget, unsigned long idTarget);
/* Number of clients.  Null handle: 0. */
KVRFRSVR_API long KvRsGetClientCount(void* hNode, unsigned long idNode);
/* Fills at most cInfo records, in client order.  Null handle: untouched. */
KVRFRSVR_API void KvRsEnumClients(void* hNode, unsigned long idNode, KVRSCONNECTINFO* aInfo, long cInfo);
/* Sends a message with number type and the value (may be null) to the
 * node's server.  Null node: reported. */
KVRFRSVR_API void KvRsNotifyNodeServer(void* hNode, unsigned long idNode, unsigned long type, void* hValue,
                                       unsigned long idValue);
/* Sends one message to each client of the node, passing fFlag on to the
 * node's own notification; when type has any of 0x2, 0x4, 0x8 the parties
 * connected for all structural changes get one too.  Null node: reported. */
KVRFRSVR_API void KvRsNotifyNodeClients(void* hNode, unsigned long idNode, unsigned long type, void* hValue,
                                        unsigned long idValue, bool fFlag);

/* ------------------------------------------------------------------------ */
/* Values                                                                   */
/* ------------------------------------------------------------------------ */

/* A new, empty value of type 0. */
KVRFRSVR_API KvRsValueProxy KvRsCreateValue(void);
/* The value's type.  Null handle: 0. */
KVRFRSVR_API unsigned long KvRsGetValueType(void* hValue, unsigned long idValue);
/* Sets the type; the bytes stay.  Null handle: ignored. */
KVRFRSVR_API void KvRsSetValueType(void* hValue, unsigned long idValue, unsigned long type);
/* Number of bytes.  Null handle: 0. */
KVRFRSVR_API long KvRsGetValueByteCount(void* hValue, unsigned long idValue);
/* Copies the bytes into pb, sized from KvRsGetValueByteCount().  Null
 * handle: pb untouched.  A bad pb is reported, not fatal. */
KVRFRSVR_API void KvRsGetValueBytes(void* hValue, unsigned long idValue, unsigned char* pb);
/* Replaces the bytes with cb bytes from pb; cb <= 0 or a null pb leaves the
 * value empty.  The type stays.  Null handle: ignored. */
KVRFRSVR_API void KvRsSetValueBytes(void* hValue, unsigned long idValue, unsigned char* pb, long cb);

/* ------------------------------------------------------------------------ */
/* Messages                                                                 */
/* ------------------------------------------------------------------------ */

/* A message made by the caller, in no queue.  Runs WITHOUT the mutex and
 * without fault protection (see Caveats). */
KVRFRSVR_API KvRsMsgProxy KvRsCreateMsg(unsigned long type, KvRsValueProxy value, KvRsNodeProxy changedNode,
                                        void* hTarget, unsigned long idTarget);
/* The message number.  Null handle: 0. */
KVRFRSVR_API unsigned long KvRsGetMsgType(void* hMsg, unsigned long idMsg);
/* The value sent with the message (empty if none).  Null handle: empty. */
KVRFRSVR_API KvRsValueProxy KvRsGetMsgValue(void* hMsg, unsigned long idMsg);
/* The node the notification was about.  Null handle: empty. */
KVRFRSVR_API KvRsNodeProxy KvRsGetMsgChangedNode(void* hMsg, unsigned long idMsg);
/* The receiver's target pair, as given when it connected.  Null handle:
 * outputs untouched. */
KVRFRSVR_API void KvRsGetMsgTarget(void* hMsg, unsigned long idMsg, void*& hTarget, unsigned long& idTarget);

/* ------------------------------------------------------------------------ */
/* Queues                                                                   */
/* ------------------------------------------------------------------------ */

/* A new queue owned by the calling process, with that name. */
KVRFRSVR_API KvRsQueueProxy KvRsCreateQueue(const char* name);
/* Messages waiting in the default queue.  Takes the mutex only when another
 * thread holds it (see Caveats); the count is one that held at a moment when
 * no other thread held the mutex. */
KVRFRSVR_API long KvRsGetMsgCount(void);
/* Takes the first message of the default queue; empty proxy when none. */
KVRFRSVR_API KvRsMsgProxy KvRsGetMsg(void);
/* Messages waiting in the queue.  Null handle: reported. */
KVRFRSVR_API long KvRsGetQueueMsgCount(void* hQueue, unsigned long idQueue);
/* Takes the first message of the queue.  Null handle: reported. */
KVRFRSVR_API KvRsMsgProxy KvRsGetQueueMsg(void* hQueue, unsigned long idQueue);
/* Id of the process that owns the queue.  Null handle: reported. */
KVRFRSVR_API unsigned long KvRsGetQueueProcessId(void* hQueue, unsigned long idQueue);
/* The queue's name, inside the segment: valid while the queue lives; do not
 * free.  Null handle: reported, null. */
KVRFRSVR_API const char* KvRsGetQueueName(void* hQueue, unsigned long idQueue);

/* ------------------------------------------------------------------------ */
/* Proxies: compiled into the caller; each owns one counted reference.      */
/* ------------------------------------------------------------------------ */

class KvRsProxy {
public:
    KvRsProxy() : m_pvHandle(0), m_dwId(0) {}
    KvRsProxy(const KvRsProxy& o) : m_pvHandle(o.m_pvHandle), m_dwId(o.m_dwId)
    {
        if (m_pvHandle != 0)
            KvRsAddRef(m_pvHandle, m_dwId);
    }
    /* SetRef takes the new reference before it releases the old one, so
     * assigning a proxy to itself is safe. */
    KvRsProxy& operator=(const KvRsProxy& o)  // NOLINT(bugprone-unhandled-self-assignment)
    {
        SetRef(o.m_pvHandle, o.m_dwId);
        return *this;
    }
    ~KvRsProxy() { Forget(); }

    /* Releases the reference held and takes one on (handle, id).  The new
     * reference is taken first, so that re-setting the same object never lets
     * it die in between. */
    void SetRef(void* handle, unsigned long id)
    {
        if (handle != 0)
            KvRsAddRef(handle, id);
        Forget();
        m_pvHandle = handle;
        m_dwId = static_cast<unsigned int>(id);
    }
    void* GetHandle() const { return m_pvHandle; }
    unsigned long GetId() const { return m_dwId; }
    bool IsNull() const { return m_pvHandle == 0; }

protected:
    void Forget()
    {
        if (m_pvHandle != 0)
            KvRsRmvRef(m_pvHandle, m_dwId);
        m_pvHandle = 0;
        m_dwId = 0;
    }

private:
    friend struct KvRsProxyAccess; /* the library sets proxies from inside a call */
    void* m_pvHandle;              /* segment offset of the object; 0: empty */
    unsigned int m_dwId;           /* the object's 32-bit id */
};

class KvRsValueProxy : public KvRsProxy {};

class KvRsQueueProxy : public KvRsProxy {};

class KvRsMsgProxy : public KvRsProxy {};

class KvRsNodeProxy : public KvRsProxy {
public:
    /* The first child when prev is empty, else the child after prev. */
    KvRsNodeProxy GetChild(const KvRsNodeProxy& prev = KvRsNodeProxy()) const
    {
        return KvRsGetChildNode(GetHandle(), GetId(), prev.GetHandle(), prev.GetId());
    }
};

/* One connection as reported by KvRsGetServer and KvRsEnumClients: the queue
 * its messages go to (a proxy holding one reference; filling a record releases
 * what it held), its target handle and target id.  16 bytes on i386. */
struct KVRSCONNECTINFO {
    KvRsQueueProxy proxyQueue;
    void* pvTarget;
    unsigned long idTarget;

    KVRSCONNECTINFO() : pvTarget(0), idTarget(0) {}
};

#if defined(__i386__)
static_assert(sizeof(KvRsProxy) == 8, "a proxy is a handle and an id");
static_assert(sizeof(KVRSCONNECTINFO) == 16, "KVRSCONNECTINFO is 16 bytes on i386");
#endif

#endif /* KVRFRSVR_H */
