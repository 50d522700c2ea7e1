// KvrsBridgeMqtt.cpp - libmosquitto without its network thread.
//
// The bridge waits in one poll() on the library's wake-up descriptor and on
// this client's socket, so libmosquitto's callbacks run on the bridge's only
// thread, between two tree operations: the tree is never touched from two
// threads, and the global mutex is never held while waiting for the network.
#include "KvrsBridgeMqtt.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KvrsCommon.h"

namespace {

constexpr int64_t kcusRetryFirst = 100000;     // first pause after a lost connection
constexpr int64_t kcusConnackWait = 10000000;  // a CONNECT unanswered this long is given up
constexpr int64_t kcusMiscInterval = 1000000;  // keep-alive bookkeeping at least this often

// libmosquitto wants one init per process before the first client.
struct LibInit {
    LibInit() { mosquitto_lib_init(); }
    ~LibInit() { mosquitto_lib_cleanup(); }
};

void AddPair(mosquitto_property** pprops, const char* pszName, const std::string& strValue)
{
    mosquitto_property_add_string_pair(pprops, MQTT_PROP_USER_PROPERTY, pszName, strValue.c_str());
}

// Unsigned decimal, or false.
bool ParseUnsigned(const char* psz, uint64_t& u)
{
    if (*psz < '0' || *psz > '9')
        return false;
    char* pszEnd = nullptr;
    errno = 0;
    u = strtoull(psz, &pszEnd, 10);
    return errno == 0 && *pszEnd == '\0';
}

void ReadPair(const char* pszName, const char* pszValue, KvrsBridgeMeta& meta)
{
    uint64_t u = 0;
    if (strcmp(pszName, "kvrs-type") == 0 && ParseUnsigned(pszValue, u) && u <= 0xFFFFFFFFu) {
        meta.m_bHasType = true;
        meta.m_dwType = static_cast<uint32_t>(u);
    } else if (strcmp(pszName, "kvrs-msg") == 0 && ParseUnsigned(pszValue, u) && u <= 0xFFFFu) {
        meta.m_bHasNumber = true;
        meta.m_dwNumber = static_cast<uint32_t>(u);
    } else if (strcmp(pszName, "kvrs-stamp") == 0 && ParseUnsigned(pszValue, u) && u <= INT64_MAX) {
        meta.m_bHasStamp = true;
        meta.m_tStamp = static_cast<int64_t>(u);
    } else if (strcmp(pszName, "kvrs-origin") == 0) {
        meta.m_strOrigin = pszValue;
    } else if (strcmp(pszName, "kvrs-resync") == 0) {
        meta.m_bResync = true;
    }
}

KvrsBridgeMeta ReadMeta(const mosquitto_property* props)
{
    KvrsBridgeMeta meta;
    for (const mosquitto_property* p = props; p != nullptr; p = mosquitto_property_next(p)) {
        if (mosquitto_property_identifier(p) != MQTT_PROP_USER_PROPERTY)
            continue;
        char* pszName = nullptr;
        char* pszValue = nullptr;
        if (mosquitto_property_read_string_pair(p, MQTT_PROP_USER_PROPERTY, &pszName, &pszValue, false) != nullptr)
            ReadPair(pszName, pszValue, meta);
        free(pszName);
        free(pszValue);
    }
    return meta;
}

}  // namespace

KvrsBridgeMqtt::KvrsBridgeMqtt(const KvrsBridgeMqttOptions& opt) : m_opt(opt)
{
    static LibInit s_init;
    m_pm = mosquitto_new(m_opt.m_strClientId.c_str(), true, this);
    if (m_pm == nullptr)
        throw KvrsError(KVRS_EXIT_FAILED, "cannot make an MQTT client: " + std::string(strerror(errno)));
    CheckResult(mosquitto_int_option(m_pm, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "MQTT 5");
    if (!m_opt.m_strUser.empty())
        CheckResult(mosquitto_username_pw_set(m_pm, m_opt.m_strUser.c_str(),
                                              m_opt.m_strPassword.empty() ? nullptr : m_opt.m_strPassword.c_str()),
                    "--user");
    if (!m_opt.m_strCaFile.empty())
        CheckResult(mosquitto_tls_set(m_pm, m_opt.m_strCaFile.c_str(), nullptr, nullptr, nullptr, nullptr), "--cafile");
    mosquitto_connect_v5_callback_set(m_pm, OnConnect);
    mosquitto_disconnect_v5_callback_set(m_pm, OnDisconnect);
    mosquitto_message_v5_callback_set(m_pm, OnMessage);
    m_cusBackOff = kcusRetryFirst;
}

KvrsBridgeMqtt::~KvrsBridgeMqtt()
{
    mosquitto_destroy(m_pm);
}

void KvrsBridgeMqtt::CheckResult(int iRc, const char* pszWhat)
{
    if (iRc != MOSQ_ERR_SUCCESS)
        KvrsUsageError(std::string(pszWhat) + ": " + mosquitto_strerror(iRc));
}

int KvrsBridgeMqtt::Socket() const
{
    return m_eState == State::Down ? -1 : mosquitto_socket(m_pm);
}

bool KvrsBridgeMqtt::WantWrite() const
{
    return m_eState != State::Down && mosquitto_want_write(m_pm);
}

void KvrsBridgeMqtt::OnReadable()
{
    const int iRc = mosquitto_loop_read(m_pm, 1);
    if (iRc != MOSQ_ERR_SUCCESS && m_eState != State::Down)
        Lost(mosquitto_strerror(iRc));
}

void KvrsBridgeMqtt::OnWritable()
{
    const int iRc = mosquitto_loop_write(m_pm, 1);
    if (iRc != MOSQ_ERR_SUCCESS && m_eState != State::Down)
        Lost(mosquitto_strerror(iRc));
}

int64_t KvrsBridgeMqtt::Tick(int64_t tNow)
{
    if (m_eState == State::Down) {
        if (tNow >= m_tRetry)
            TryConnect(tNow);
        if (m_eState == State::Down)
            return m_tRetry - tNow;
    }
    if (m_eState == State::Connecting && tNow - m_tConnectStart > kcusConnackWait) {
        Lost("no answer to CONNECT");
        return m_tRetry - tNow;
    }
    const int iRc = mosquitto_loop_misc(m_pm);
    if (iRc != MOSQ_ERR_SUCCESS && m_eState != State::Down)
        Lost(mosquitto_strerror(iRc));
    return kcusMiscInterval;
}

void KvrsBridgeMqtt::TryConnect(int64_t tNow)
{
    // A blocking connect: the TCP handshake (and TLS) is short next to the
    // keep-alive, and a stop signal interrupts it.
    const int iRc = m_bEverConnected
                        ? mosquitto_reconnect(m_pm)
                        : mosquitto_connect(m_pm, m_opt.m_strHost.c_str(), m_opt.m_iPort, m_opt.m_csKeepAlive);
    if (iRc == MOSQ_ERR_SUCCESS) {
        m_bEverConnected = true;
        m_eState = State::Connecting;
        m_tConnectStart = tNow;
        return;
    }
    // mosquitto_reconnect needs one successful mosquitto_connect for the
    // address; until then every attempt is a first one.
    if (!m_bOutageReported) {
        fprintf(stderr, "bridge: cannot reach %s:%d (%s), retrying\n", m_opt.m_strHost.c_str(), m_opt.m_iPort,
                iRc == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(iRc));
        m_bOutageReported = true;
    }
    m_tRetry = tNow + m_cusBackOff;
    m_cusBackOff = std::min(m_cusBackOff * 2, m_opt.m_cusRetryMax);
}

void KvrsBridgeMqtt::Lost(const std::string& strWhy)
{
    const bool bWasUp = m_eState == State::Up;
    if (bWasUp)
        fprintf(stderr, "bridge: lost the broker (%s), reconnecting\n", strWhy.c_str());
    m_eState = State::Down;
    m_bOutageReported = m_bOutageReported || bWasUp;
    m_tRetry = KvrsNowMicros() + m_cusBackOff;
    m_cusBackOff = std::min(m_cusBackOff * 2, m_opt.m_cusRetryMax);
}

void KvrsBridgeMqtt::OnConnect(mosquitto* pm, void* pv, int iRc, int, const mosquitto_property*)
{
    auto* pThis = static_cast<KvrsBridgeMqtt*>(pv);
    if (iRc != 0) {
        fprintf(stderr, "bridge: broker refused the connection: %s\n", mosquitto_reason_string(iRc));
        pThis->m_bOutageReported = true;
        pThis->Lost(mosquitto_reason_string(iRc));
        return;
    }
    pThis->m_eState = State::Up;
    pThis->m_bOutageReported = false;
    pThis->m_cusBackOff = kcusRetryFirst;
    for (const std::string& strFilter : pThis->m_vstrFilters)
        mosquitto_subscribe_v5(pm, nullptr, strFilter.c_str(), 1, MQTT_SUB_OPT_NO_LOCAL, nullptr);
    fprintf(stderr, "bridge: connected to %s:%d as %s\n", pThis->m_opt.m_strHost.c_str(), pThis->m_opt.m_iPort,
            pThis->m_opt.m_strClientId.c_str());
    if (pThis->m_fnConnected)
        pThis->m_fnConnected();
}

void KvrsBridgeMqtt::OnDisconnect(mosquitto*, void* pv, int iRc, const mosquitto_property*)
{
    auto* pThis = static_cast<KvrsBridgeMqtt*>(pv);
    if (pThis->m_eState != State::Down)
        pThis->Lost(iRc == MOSQ_ERR_CONN_LOST ? "connection lost" : mosquitto_reason_string(iRc));
}

void KvrsBridgeMqtt::OnMessage(mosquitto*, void* pv, const mosquitto_message* pMsg, const mosquitto_property* props)
{
    auto* pThis = static_cast<KvrsBridgeMqtt*>(pv);
    if (!pThis->m_fnMessage || pMsg->topic == nullptr)
        return;
    KvrsBridgeIncoming in;
    in.m_strTopic = pMsg->topic;
    const auto* pb = static_cast<const unsigned char*>(pMsg->payload);
    if (pMsg->payloadlen > 0)
        in.m_ab.assign(pb, pb + pMsg->payloadlen);
    in.m_bRetained = pMsg->retain;
    in.m_meta = ReadMeta(props);
    pThis->m_fnMessage(in);
}

bool KvrsBridgeMqtt::Publish(const std::string& strTopic, const std::vector<unsigned char>& ab,
                             const KvrsBridgeMeta& meta, bool bRetain)
{
    if (m_eState != State::Up)
        return false;
    mosquitto_property* props = nullptr;
    if (meta.m_bHasType)
        AddPair(&props, "kvrs-type", std::to_string(meta.m_dwType));
    if (meta.m_bHasNumber)
        AddPair(&props, "kvrs-msg", std::to_string(meta.m_dwNumber));
    if (meta.m_bHasStamp)
        AddPair(&props, "kvrs-stamp", std::to_string(meta.m_tStamp));
    if (!meta.m_strOrigin.empty())
        AddPair(&props, "kvrs-origin", meta.m_strOrigin);
    if (meta.m_bResync)
        AddPair(&props, "kvrs-resync", "1");
    const int iRc = mosquitto_publish_v5(m_pm, nullptr, strTopic.c_str(), static_cast<int>(ab.size()),
                                         ab.empty() ? nullptr : ab.data(), 1, bRetain, props);
    mosquitto_property_free_all(&props);
    if (iRc == MOSQ_ERR_NO_CONN || iRc == MOSQ_ERR_CONN_LOST || iRc == MOSQ_ERR_ERRNO) {
        Lost(mosquitto_strerror(iRc));
        return false;
    }
    if (iRc != MOSQ_ERR_SUCCESS)
        fprintf(stderr, "bridge: cannot publish %s: %s\n", strTopic.c_str(), mosquitto_strerror(iRc));
    return iRc == MOSQ_ERR_SUCCESS;
}

void KvrsBridgeMqtt::Disconnect()
{
    if (m_eState == State::Down)
        return;
    // Sends the outstanding packets, then DISCONNECT, both on this thread.
    for (int i = 0; i < 100 && mosquitto_want_write(m_pm); ++i)
        if (mosquitto_loop_write(m_pm, 1) != MOSQ_ERR_SUCCESS)
            break;
    // Down first: libmosquitto calls the disconnect callback from here, and
    // that is no loss of the broker.
    m_eState = State::Down;
    mosquitto_disconnect_v5(m_pm, MQTT_RC_NORMAL_DISCONNECTION, nullptr);
}
