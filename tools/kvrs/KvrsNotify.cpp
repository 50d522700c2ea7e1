// KvrsNotify.cpp - `kvrs notify` and `kvrs serve`: sending notifications by
// hand, and keeping a tree alive.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvrsCommands.h"
#include "KvrsCommon.h"

namespace {

// --- notify ------------------------------------------------------------------

struct NotifyOptions {
    std::string m_strPath;
    std::string m_strNumber;
    std::string m_strValue;
    bool m_bValue = false;
    bool m_bServer = false;
    bool m_bRecursive = false;
    bool m_bFront = false;
    std::string m_strRepeat = "1";  // --repeat: notifications sent, as a load for measuring
};

void RunNotify(const NotifyOptions& opt)
{
    KvrsCheckPath(opt.m_strPath, true);
    uint32_t dwNumber = KvrsParseNumber(opt.m_strNumber, "NUMBER");
    if (opt.m_bFront)
        dwNumber |= KVRS_NOTIFY_FRONT;
    if (opt.m_bServer && opt.m_bRecursive)
        KvrsUsageError("--recursive applies to clients only, not with --server");
    const std::vector<unsigned char> ab(opt.m_strValue.begin(), opt.m_strValue.end());
    KvrsCheckValueSize(ab.size());
    KvRsNodeProxy node = KvrsFindNode(opt.m_strPath);
    KvRsValueProxy value;
    if (opt.m_bValue)
        value = KvrsMakeValue(0, ab);
    const long cRepeat = KvrsParseCount(opt.m_strRepeat, "--repeat", 1, 1000000000L);
    for (long i = 0; i < cRepeat && !KvrsStopRequested(); ++i) {
        if (opt.m_bServer)
            KvRsNotifyNodeServer(node.GetHandle(), node.GetId(), dwNumber, value.GetHandle(), value.GetId());
        else
            KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), dwNumber, value.GetHandle(), value.GetId(),
                                  opt.m_bRecursive);
    }
}

// --- serve -------------------------------------------------------------------

// Keeps the tree, and reaps ended processes every reap interval (0: never), so
// that a killed client's queue never fills the segment while nobody starts.
void RunServe(long cmsReap)
{
    KvrsInstallStopHandlers();
    printf("serving namespace %s pid %u\n", KvNamespace().c_str(), KvGetCurrentProcessId());
    fflush(stdout);
    const int64_t cusSleep = cmsReap > 0 ? cmsReap * 1000 : 1000000;
    while (!KvrsStopRequested()) {
        KvrsSleepMicros(cusSleep);  // a stop signal cuts the sleep short
        if (cmsReap > 0 && !KvrsStopRequested())
            KvrsReapNow(true);
    }
}

void AddNotify(CLI::App& app)
{
    auto opt = std::make_shared<NotifyOptions>();
    CLI::App* sub = app.add_subcommand("notify", "Send a notification to a node's clients (or its server)");
    sub->add_option("PATH", opt->m_strPath, "Dotted path of the node")->required();
    sub->add_option("NUMBER", opt->m_strNumber,
                    "Notification number: low 16 bits the message number; 0x2 passes through references; "
                    "0x2/0x4/0x8 also reach structural listeners")
        ->required();
    sub->add_option("--value", opt->m_strValue, "Text sent with the message (type 0)")->each([opt](const std::string&) {
        opt->m_bValue = true;
    });
    sub->add_flag("--server", opt->m_bServer, "Notify the node's server instead of its clients");
    sub->add_flag("--recursive", opt->m_bRecursive, "Also notify the clients of every descendant");
    sub->add_flag("--front", opt->m_bFront, "Put the messages at the front of the queues (bit 0x10000)");
    sub->add_option("--repeat", opt->m_strRepeat, "Send the notification N times (a load for measuring)")
        ->type_name("N");
    sub->callback([opt] {
        KvrsInstallStopHandlers();
        RunNotify(*opt);
    });
}

}  // namespace

void KvrsAddNotifyCommands(CLI::App& app)
{
    AddNotify(app);
    KvrsAddListenCommand(app);
    CLI::App* sub = app.add_subcommand("serve", "Keep the tree alive until SIGINT or SIGTERM");
    auto pstrReap = std::make_shared<std::string>("1000");
    sub->add_option("--reap-ms", *pstrReap, "Reap killed processes every N ms (0: never)")
        ->capture_default_str()
        ->type_name("N");
    sub->callback([pstrReap] { RunServe(KvrsParseCount(*pstrReap, "--reap-ms", 0, 86400000L)); });
}
