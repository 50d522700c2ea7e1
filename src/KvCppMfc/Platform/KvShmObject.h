// KvShmObject.h - named shared-memory objects, file locks on their descriptions
// and private memory.
#pragma once

#include <cstddef>
#include <string>

// One open shared-memory object of this process: its own open description (fd)
// and, once mapped, the mapping.
struct KvShmObject {
    int m_fd = -1;
    void* m_pv = nullptr;
    size_t m_cb = 0;
    std::string m_strName;

    // Opens the object, or creates it with mode 0600 and size cb when it does not
    // exist (and fCreateOk). *pfCreated tells which. An existing object must be at
    // least cb bytes and is mapped whole. Returns false on failure.
    bool OpenOrCreate(const std::string& strName, size_t cb, bool fCreateOk, bool* pfCreated);
    // Maps the whole object read-write, shared, at an address of the system's choosing.
    bool Map();
    void Unmap();
    void Close();  // unmaps and closes the descriptor
    // Opens a second, independent description of the same name (used after fork,
    // so that the child holds a lock of its own). Keeps the mapping.
    bool Reopen();
    // Opens another description of the same name without touching this one;
    // returns its descriptor or -1.
    int OpenAnotherDescription() const;
    // Makes fd this object's description, closing the one it had.
    void AdoptDescription(int fd);
    static bool Unlink(const std::string& strName);
};

// Private (not shared) read-write memory of this process, reserved lazily; null on
// failure.
void* KvReserveMemory(size_t cb);
void KvReleaseMemory(void* pv, size_t cb);

// flock(2) on an open description.
bool KvFlockShared(int fd);
bool KvFlockTryExclusive(int fd);  // non-blocking; false when another description holds a lock
void KvFlockUnlock(int fd);
void KvCloseDescriptor(int fd);
