// TreeSubject.h - one store of named data that the in-process comparison
// drives with the same script: this library through its public API, or a
// Boost.Interprocess map keyed by the dotted path. Timed operations are the
// ones a user calls per item; set-up steps are not timed.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace kvcmp {

class TreeSubject {
public:
    virtual ~TreeSubject() = default;
    virtual std::string Name() const = 0;
    virtual bool Open() = 0;
    // Bytes of the store's segment in use now.
    virtual double BytesUsed() = 0;

    // Timed: find or create the node at a dotted path (parents included).
    virtual bool CreateLeaf(const std::string& path) = 0;
    // Timed: look a dotted path up, and drop whatever the lookup handed out.
    virtual bool LookupLeaf(const std::string& path) = 0;
    // Timed: one child of the node at parentPath, by name.
    virtual bool CreateChild(const std::string& parentPath, const std::string& name) = 0;
    virtual bool LookupChild(const std::string& parentPath, const std::string& name) = 0;

    // Set-up: keep a handle on the node at path in slot.
    virtual bool HoldLeaf(const std::string& path, size_t slot) = 0;
    // Timed: give the held node a value of 16 bytes.
    virtual void SetValue(size_t slot, const unsigned char* pb16) = 0;
    // Set-up: this process becomes the one client of the held node.
    virtual bool ConnectClient(size_t slot) = 0;
    // The ways this subject delivers a notification (one row each).
    virtual std::vector<std::string> NotifyVariants() const = 0;
    // Timed: notify the node's client, take the message from the client's
    // queue and release it.
    virtual bool NotifyTakeRelease(size_t slot, size_t variant) = 0;
    // Timed in batches: the cheapest call there is (read the held node's type).
    virtual unsigned long TrivialCall(size_t slot) = 0;
};

std::unique_ptr<TreeSubject> MakeBoostSubject();
#ifdef KVCMP_WITH_KVRS
std::unique_ptr<TreeSubject> MakeKvRsSubject();
#endif

}  // namespace kvcmp
