// KvrsBridgeMqtt.h - the bridge's MQTT 5 client: libmosquitto driven from the
// bridge's own poll loop (no thread of libmosquitto's), with reconnection.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct mosquitto;
struct mosquitto_message;
typedef struct mqtt5__property mosquitto_property;

struct KvrsBridgeMqttOptions {
    std::string m_strHost;
    int m_iPort = 1883;
    std::string m_strClientId;
    std::string m_strUser;      // empty: no user name
    std::string m_strPassword;  // read from --password-file, never from the command line
    std::string m_strCaFile;    // empty: no TLS
    int m_csKeepAlive = 30;
    int64_t m_cusRetryMax = 10000000;  // longest pause between connection attempts
};

// What travels in one PUBLISH besides topic and payload, as MQTT 5 user
// properties. A plain client sends none of them.
struct KvrsBridgeMeta {
    bool m_bHasType = false;
    uint32_t m_dwType = 0;  // "kvrs-type": the value's type number
    bool m_bHasNumber = false;
    uint32_t m_dwNumber = 0;  // "kvrs-msg": the message number
    bool m_bHasStamp = false;
    int64_t m_tStamp = 0;     // "kvrs-stamp": when the change was made, microseconds since 1970
    std::string m_strOrigin;  // "kvrs-origin": client id of the bridge that made it
    bool m_bResync = false;   // "kvrs-resync": a value republished after a reconnect, not a change
};

struct KvrsBridgeIncoming {
    std::string m_strTopic;
    std::vector<unsigned char> m_ab;
    bool m_bRetained = false;  // stored by the broker before we subscribed
    KvrsBridgeMeta m_meta;
};

class KvrsBridgeMqtt {
public:
    explicit KvrsBridgeMqtt(const KvrsBridgeMqttOptions& opt);
    ~KvrsBridgeMqtt();
    KvrsBridgeMqtt(const KvrsBridgeMqtt&) = delete;
    KvrsBridgeMqtt& operator=(const KvrsBridgeMqtt&) = delete;

    // Topic filters subscribed to (with no-local) on every connection.
    void AddSubscription(const std::string& strFilter) { m_vstrFilters.push_back(strFilter); }
    // Called once the broker accepted a connection and the subscriptions are sent.
    std::function<void()> m_fnConnected;
    std::function<void(const KvrsBridgeIncoming&)> m_fnMessage;

    bool IsConnected() const { return m_eState == State::Up; }
    // The socket to poll (-1 while there is none) and whether to poll it for
    // writing as well.
    int Socket() const;
    bool WantWrite() const;
    void OnReadable();
    void OnWritable();
    // Keep-alive and reconnection; returns the longest sleep, in microseconds,
    // before it wants to be called again.
    int64_t Tick(int64_t tNow);
    // Retained QoS 1 publish; false when not connected (the value then goes out
    // with the republish after the next connection).
    bool Publish(const std::string& strTopic, const std::vector<unsigned char>& ab, const KvrsBridgeMeta& meta,
                 bool bRetain);
    // Sends DISCONNECT and flushes it.
    void Disconnect();

private:
    enum class State { Down, Connecting, Up };

    static void OnConnect(mosquitto* pm, void* pv, int iRc, int iFlags, const mosquitto_property* props);
    static void OnDisconnect(mosquitto* pm, void* pv, int iRc, const mosquitto_property* props);
    static void OnMessage(mosquitto* pm, void* pv, const mosquitto_message* pMsg, const mosquitto_property* props);
    void Lost(const std::string& strWhy);
    void TryConnect(int64_t tNow);
    void CheckResult(int iRc, const char* pszWhat);

    KvrsBridgeMqttOptions m_opt;
    mosquitto* m_pm = nullptr;
    std::vector<std::string> m_vstrFilters;
    State m_eState = State::Down;
    bool m_bEverConnected = false;
    bool m_bOutageReported = false;
    int64_t m_tRetry = 0;         // next connection attempt
    int64_t m_cusBackOff = 0;     // pause after the next failure
    int64_t m_tConnectStart = 0;  // when the CONNECT went out
};
