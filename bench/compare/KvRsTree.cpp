// KvRsTree.cpp - the in-process script through the library's public API.
// Every timed operation includes releasing the proxies it got back: that
// release is an exported call of its own, and every user pays it.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "KvRfrSvr.h"
#include "TreeSubject.h"

namespace kvcmp {

namespace {

const unsigned long kNotify = 0x0100;  // a message number of ours, no structural bits

// The segment's first header field is the offset of the first byte not yet
// carved into pool blocks; its growth is what the tree took. The segment is
// read through a read-only mapping of its own.
class SegmentWatch {
    const volatile uint32_t* m_pHeader = nullptr;

public:
    bool Open()
    {
        const char* psz = getenv("KVRFRSVR_NAMESPACE");
        if (psz == nullptr)
            return false;
        const std::string strPrefix = std::string("KVRFRSVR_MEM.") + psz + ".";
        DIR* pdir = opendir("/dev/shm");
        std::string strName;
        while (dirent* pe = pdir != nullptr ? readdir(pdir) : nullptr)
            if (strncmp(pe->d_name, strPrefix.c_str(), strPrefix.size()) == 0 &&
                strchr(pe->d_name + strPrefix.size(), '.') == nullptr)
                strName = std::string("/") + pe->d_name;
        if (pdir != nullptr)
            closedir(pdir);
        const int fd = strName.empty() ? -1 : shm_open(strName.c_str(), O_RDONLY, 0);
        if (fd < 0)
            return false;
        void* pv = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
        close(fd);
        if (pv == MAP_FAILED)
            return false;
        m_pHeader = static_cast<const volatile uint32_t*>(pv);
        return true;
    }
    double BytesUsed() const { return m_pHeader != nullptr ? static_cast<double>(m_pHeader[0]) : 0.0; }
};

class KvRsSubject : public TreeSubject {
    SegmentWatch m_watch;
    std::vector<KvRsNodeProxy> m_aHeld;
    std::vector<KvRsValueProxy> m_aValues;
    KvRsNodeProxy m_parent;
    std::string m_strParent;
    int m_target = 0;

    const KvRsNodeProxy& Parent(const std::string& parentPath)
    {
        if (parentPath != m_strParent || m_parent.IsNull()) {
            m_parent = KvRsCreateNode(parentPath.c_str(), 0, 0);
            m_strParent = parentPath;
        }
        return m_parent;
    }

public:
    std::string Name() const override { return "KvRfrSvr"; }
    bool Open() override
    {
        if (!m_watch.Open())
            return false;
        KvRsNodeProxy root = KvRsCreateNode("", 0, 0);
        return !root.IsNull();
    }
    double BytesUsed() override { return m_watch.BytesUsed(); }
    bool CreateLeaf(const std::string& path) override
    {
        KvRsNodeProxy node = KvRsCreateNode(path.c_str(), 0, 0);
        return !node.IsNull();
    }
    bool LookupLeaf(const std::string& path) override
    {
        KvRsNodeProxy node = KvRsGetNode(path.c_str());
        return !node.IsNull();
    }
    bool CreateChild(const std::string& parentPath, const std::string& name) override
    {
        const KvRsNodeProxy& parent = Parent(parentPath);
        KvRsNodeProxy node = KvRsAddChildNode(parent.GetHandle(), parent.GetId(), name.c_str());
        return !node.IsNull();
    }
    bool LookupChild(const std::string& parentPath, const std::string& name) override
    {
        const KvRsNodeProxy& parent = Parent(parentPath);
        KvRsNodeProxy node = KvRsGetChildNode(parent.GetHandle(), parent.GetId(), name.c_str());
        return !node.IsNull();
    }
    bool HoldLeaf(const std::string& path, size_t slot) override
    {
        if (m_aHeld.size() <= slot) {
            m_aHeld.resize(slot + 1);
            m_aValues.resize(slot + 1);
        }
        m_aHeld[slot] = KvRsGetNode(path.c_str());
        return !m_aHeld[slot].IsNull();
    }
    // The documented way to change data: a new value, its bytes, stored on the node.
    void SetValue(size_t slot, const unsigned char* pb16) override
    {
        const KvRsNodeProxy& node = m_aHeld[slot];
        KvRsValueProxy value = KvRsCreateValue();
        KvRsSetValueBytes(value.GetHandle(), value.GetId(), const_cast<unsigned char*>(pb16), 16);
        KvRsSetNodeValue(node.GetHandle(), node.GetId(), value.GetHandle(), value.GetId());
    }
    bool ConnectClient(size_t slot) override
    {
        const KvRsNodeProxy& node = m_aHeld[slot];
        KvRsConnectClient(node.GetHandle(), node.GetId(), &m_target, 1);
        m_aValues[slot] = KvRsGetNodeValue(node.GetHandle(), node.GetId());
        return KvRsGetClientCount(node.GetHandle(), node.GetId()) == 1;
    }
    std::vector<std::string> NotifyVariants() const override { return {"KvRfrSvr"}; }
    bool NotifyTakeRelease(size_t slot, size_t) override
    {
        const KvRsNodeProxy& node = m_aHeld[slot];
        const KvRsValueProxy& value = m_aValues[slot];
        KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), kNotify, value.GetHandle(), value.GetId(), false);
        KvRsMsgProxy msg = KvRsGetMsg();
        return !msg.IsNull();
    }
    unsigned long TrivialCall(size_t slot) override
    {
        return KvRsGetNodeType(m_aHeld[slot].GetHandle(), m_aHeld[slot].GetId());
    }
};

}  // namespace

std::unique_ptr<TreeSubject> MakeKvRsSubject()
{
    return std::unique_ptr<TreeSubject>(new KvRsSubject());
}

}  // namespace kvcmp
