// KvRsException.h - the exception raised inside the library and answered at its
// boundary; a hardware fault inside an exported call becomes one of these.
#pragma once

// Thrown and caught by value. Neither text is owned: the text points into a
// static buffer of the diagnostics, the module is a literal.
struct KvRsException {
    const char* m_pszText;
    const char* m_pszModule;
};

// Module named by every exception and message box of the boundary.
#define KVRS_DLL_NAME "KvRfrSvr.dll"
// Source name that the catch-all report of the boundary gives.
#define KVRS_EXPORT_MODULE "KvRfrSvr/Export"
