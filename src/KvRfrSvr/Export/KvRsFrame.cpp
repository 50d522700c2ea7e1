// KvRsFrame.cpp - the answers of the boundary frame and the fault thrower.
#include "KvRsFrame.h"

#include <cstdio>

#include "KvCppMfc/Diag/KvDiag.h"

KvRsState g_eKvRsState = KvRsState::Loaded;

void KvRsReportException(const KvRsException& ex)
{
    KvBeep(440, 500);
    KvBeep(880, 500);
    KvBeep(220, 500);
    KvMessageBox(ex.m_pszText, ex.m_pszModule);
}

void KvRsReportUnknown(int nLine)
{
    char sz[128];
    snprintf(sz, sizeof(sz), "Exception in file %s, line %d", KVRS_EXPORT_MODULE, nLine);
    KvMessageBox(sz, KVRS_DLL_NAME);
}

void KvRsThrowFault(const KvFaultInfo& info)
{
    throw KvRsException{KvExceptionInfo2Text(info), KVRS_DLL_NAME};
}

void KvRsRaiseAccessViolation(const void* pvData)
{
    KvFaultInfo info{};
    info.dwCode = 0xC0000005;
    info.pvAddress = reinterpret_cast<uintptr_t>(__builtin_return_address(0));
    info.cParams = 2;
    info.aParams[0] = 0;  // a read
    info.aParams[1] = reinterpret_cast<uintptr_t>(pvData);
    KvRsThrowFault(info);
}
