// KvToolFixture.h - the fixture of the tool tests: a namespace of the test's
// own, an optional `kvrs serve` that keeps the tree between commands, and the
// check that nothing of the namespace is left when every process has ended.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "KvToolProcess.h"

class KvToolTest : public ::testing::Test {
protected:
    void SetUp() override { m_strNamespace = KvTestUseFreshNamespace(); }
    void TearDown() override
    {
        if (m_pServe != nullptr) {
            m_pServe->Signal(SIGTERM);
            EXPECT_EQ(0, m_pServe->Finish().iStatus);
        }
        // Every process has ended by now: nothing of the namespace may remain.
        EXPECT_TRUE(KvTestNamespaceObjects().empty());
    }
    // Starts `kvrs serve`, which keeps the tree between the commands of a test.
    void Serve()
    {
        m_pServe = std::make_unique<KvToolProcess>(KVRS_EXE, std::vector<std::string>{"serve"});
        ASSERT_TRUE(m_pServe->WaitForText("serving namespace"));
    }
    // A listener that has connected (its banner is out) before the test goes on.
    std::unique_ptr<KvToolProcess> Listen(const std::vector<std::string>& vstrArgs)
    {
        std::vector<std::string> vstr{"listen"};
        vstr.insert(vstr.end(), vstrArgs.begin(), vstrArgs.end());
        auto p = std::make_unique<KvToolProcess>(KVRS_EXE, vstr);
        EXPECT_TRUE(p->WaitForText("listening to", true));
        return p;
    }
    std::unique_ptr<KvToolProcess> m_pServe;
    std::string m_strNamespace;
};

// Expects one error line "kvrs: ..." holding pszText, and the status.
#define KV_EXPECT_FAILS(r, iStatus_, pszText)                                                                     \
    do {                                                                                                          \
        const KvToolResult& r_ = (r);                                                                             \
        EXPECT_EQ((iStatus_), r_.iStatus) << r_.strErr;                                                           \
        EXPECT_EQ(1u, KvToolLineCount(r_.strErr)) << r_.strErr;                                                   \
        EXPECT_EQ(0u, r_.strErr.rfind("kvrs: ", 0)) << r_.strErr;                                                 \
        EXPECT_NE(std::string::npos, r_.strErr.find(pszText)) << "wanted '" << (pszText) << "' in " << r_.strErr; \
    } while (0)
