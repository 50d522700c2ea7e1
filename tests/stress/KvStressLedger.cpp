// KvStressLedger.cpp - the per-worker record of messages sent and received, as
// a small text file the parent reads back.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "KvStress.h"

uint64_t KvStressHash(uint32_t dwSender, uint32_t dwSeq)
{
    // splitmix64: a lost message and a duplicated one never cancel in the sum.
    uint64_t x = (static_cast<uint64_t>(dwSender) << 32 | dwSeq) + 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

void KvStressLedger::Merge(const KvStressLedger& o)
{
    cOps += o.cOps;
    cCreates += o.cCreates;
    if (o.cErrors != 0 && cErrors == 0)
        strFirstError = o.strFirstError;
    cErrors += o.cErrors;
    for (const auto& e : o.mapSent) {
        mapSent[e.first].c += e.second.c;
        mapSent[e.first].sum += e.second.sum;
    }
    for (const auto& e : o.mapRecv) {
        mapRecv[e.first].c += e.second.c;
        mapRecv[e.first].sum += e.second.sum;
    }
}

bool KvStressLedger::Write(const std::string& strPath) const
{
    FILE* pf = fopen(strPath.c_str(), "w");
    if (pf == nullptr)
        return false;
    fprintf(pf, "ops %" PRIu64 " %" PRIu64 " %" PRIu64 "\n", cOps, cCreates, cErrors);
    for (const auto& e : mapSent)
        fprintf(pf, "S %u %" PRIu64 " %" PRIu64 " %" PRIu64 "\n", e.first.first, e.first.second, e.second.c,
                e.second.sum);
    for (const auto& e : mapRecv)
        fprintf(pf, "R %u %" PRIu64 " %" PRIu64 " %" PRIu64 "\n", e.first.first, e.first.second, e.second.c,
                e.second.sum);
    if (cErrors != 0)
        fprintf(pf, "E %s\n", strFirstError.c_str());
    return fclose(pf) == 0;
}

bool KvStressLedger::Read(const std::string& strPath)
{
    FILE* pf = fopen(strPath.c_str(), "r");
    if (pf == nullptr)
        return false;
    bool fOk = fscanf(pf, "ops %" SCNu64 " %" SCNu64 " %" SCNu64 "\n", &cOps, &cCreates, &cErrors) == 3;
    char szLine[512];
    while (fOk && fgets(szLine, sizeof(szLine), pf) != nullptr) {
        unsigned uSender = 0;
        uint64_t qwTarget = 0, c = 0, sum = 0;
        if (szLine[0] == 'E') {
            strFirstError = szLine + 2;
            continue;
        }
        fOk = sscanf(szLine + 1, " %u %" SCNu64 " %" SCNu64 " %" SCNu64, &uSender, &qwTarget, &c, &sum) == 4;
        auto& map = szLine[0] == 'S' ? mapSent : mapRecv;
        map[{uSender, qwTarget}] = KvStressTally{c, sum};
    }
    fclose(pf);
    return fOk;
}
