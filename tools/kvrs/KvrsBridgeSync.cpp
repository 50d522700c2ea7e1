// KvrsBridgeSync.cpp - stamps, publishing and taking changes.
#include "KvrsBridgeSync.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "KvrsBridgeTopic.h"

namespace {

// Wall-clock time in microseconds since 1970, the stamps' clock.
int64_t WallMicros()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

KvrsBridgeSync::KvrsBridgeSync(KvrsBridgeLocal& local, KvrsBridgeMqtt& mqtt, const std::string& strRoot,
                               const std::string& strOrigin)
    : m_local(local), m_mqtt(mqtt), m_strRoot(strRoot), m_strOrigin(strOrigin)
{
}

// Changes made here are ordered by their stamps elsewhere: two changes in one
// microsecond, or after the clock was set back, still get increasing stamps.
int64_t KvrsBridgeSync::NextStamp()
{
    m_tLastStamp = std::max(m_tLastStamp + 1, WallMicros());
    return m_tLastStamp;
}

bool KvrsBridgeSync::Older(int64_t tStamp, const std::string& strOrigin, const Synced& synced)
{
    return tStamp < synced.m_tStamp || (tStamp == synced.m_tStamp && strOrigin < synced.m_strOrigin);
}

void KvrsBridgeSync::Publish(const std::string& strKey, const Synced& synced, bool bResync)
{
    KvrsBridgeMeta meta;
    meta.m_bHasType = synced.m_value.m_bPresent;
    meta.m_dwType = synced.m_value.m_dwType;
    meta.m_bHasNumber = true;
    meta.m_dwNumber = synced.m_dwNumber;
    meta.m_bHasStamp = true;
    meta.m_tStamp = synced.m_tStamp;
    meta.m_strOrigin = synced.m_strOrigin;
    meta.m_bResync = bResync;
    // A notification without any value goes out unretained: an empty retained
    // message would delete what the broker keeps for the node.
    if (m_mqtt.Publish(m_strRoot + "/" + strKey, synced.m_value.m_ab, meta, synced.m_value.m_bPresent))
        ++m_cPublished;
}

void KvrsBridgeSync::OnLocalChanges(const std::vector<KvrsBridgeChange>& vchange, bool bInitial)
{
    for (const KvrsBridgeChange& change : vchange) {
        Synced& synced = m_mapSynced[change.m_strKey];
        const bool bKeep = !change.m_value.m_bPresent && synced.m_value.m_bPresent;
        Synced sent;
        sent.m_value = change.m_value;
        sent.m_dwNumber = change.m_dwNumber & KVRS_NOTIFY_MSG_MASK;
        sent.m_tStamp = bInitial ? 0 : NextStamp();
        sent.m_strOrigin = m_strOrigin;
        Publish(change.m_strKey, sent, false);
        // A bare notification leaves the retained value, and its stamp, as they were.
        if (!bKeep)
            synced = sent;
    }
}

void KvrsBridgeSync::OnIncoming(const KvrsBridgeIncoming& in)
{
    std::string strKey;
    if (!KvrsBridgeKeyOfTopic(m_strRoot, in.m_strTopic, strKey) || !m_local.IsWithin(strKey))
        return;
    const KvrsBridgeMeta& meta = in.m_meta;
    Synced got;
    // A bridge sends a notification that had no value at all without a type
    // (and not retained); a plain client's empty message is an empty value.
    got.m_value.m_bPresent = !(meta.m_bHasStamp && !meta.m_bHasType && in.m_ab.empty());
    got.m_value.m_dwType = meta.m_bHasType ? meta.m_dwType : 0;
    got.m_value.m_ab = in.m_ab;
    got.m_dwNumber = meta.m_bHasNumber ? meta.m_dwNumber : 1;
    // A plain client's live publish is a change made now; two in one
    // microsecond are still two changes.
    got.m_tStamp = meta.m_bHasStamp ? meta.m_tStamp : in.m_bRetained ? 0 : NextStamp();
    got.m_strOrigin = meta.m_bHasStamp ? meta.m_strOrigin : std::string();
    auto it = m_mapSynced.find(strKey);
    if (it != m_mapSynced.end()) {
        Synced& synced = it->second;
        if (Older(got.m_tStamp, got.m_strOrigin, synced)) {
            // The broker now holds something older than what this tree has.
            if (synced.m_value.m_bPresent && !KvrsSameValue(synced.m_value, got.m_value))
                Publish(strKey, synced, true);
            return;
        }
        const bool bSameChange = got.m_tStamp == synced.m_tStamp && got.m_strOrigin == synced.m_strOrigin;
        const bool bNoNews = (meta.m_bResync || in.m_bRetained) && KvrsSameValue(synced.m_value, got.m_value);
        if (bSameChange || bNoNews) {
            synced.m_tStamp = got.m_tStamp;
            synced.m_strOrigin = got.m_strOrigin;
            return;
        }
    }
    if (!meta.m_bHasType && !meta.m_bHasStamp && in.m_ab.empty() && in.m_bRetained)
        return;  // not a value: nothing retained is ever empty
    if (!m_local.Apply(strKey, got.m_value, got.m_dwNumber)) {
        fprintf(stderr, "bridge: cannot store %s in the tree\n", in.m_strTopic.c_str());
        return;
    }
    ++m_cApplied;
    Synced& synced = m_mapSynced[strKey];
    if (got.m_value.m_bPresent || !synced.m_value.m_bPresent)
        synced = got;  // a bare notification leaves the value, and its stamp, as they were
}

void KvrsBridgeSync::Republish()
{
    for (const auto& [strKey, synced] : m_mapSynced)
        if (synced.m_value.m_bPresent)
            Publish(strKey, synced, true);
}
