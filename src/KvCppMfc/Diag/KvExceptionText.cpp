// KvExceptionText.cpp - descriptions of hardware exceptions, in the texts that the
// boundary frame shows. Faults arrive as signals and are described with the
// exception codes of the original platform (see KvFaultInfoFromSignal).
#include <cstdio>
#include <cstring>

#include "../Platform/KvPlatform.h"
#include "KvDiag.h"

namespace {
struct KvCodeText {
    unsigned long dwCode;
    const char* pszText;
};

// The texts are kept exactly, missing blanks included.
const KvCodeText s_aCodeTexts[] = {
    {0x80000002, "The thread tried to read or write data that is misaligned on hardware that does not provide "
                 "alignment. For example, 16-bit values must be aligned on 2-byte boundaries;32-bit values on "
                 "4-byte boundaries, and so on."},
    {0x80000003, "A breakpoint was encountered."},
    {0x80000004, "A trace trap or other single-instruction mechanism signaled that one instruction has been executed."},
    {0xC0000005, "The thread tried to read from or write to a virtual address for which it does not have the "
                 "appropriate access."},
    {0xC0000006, "The thread tried to access a page that was not present,and the system was unable to load the "
                 "page. For example, this exception might occur if a network connection is lost while running a "
                 "program over the network."},
    {0xC000001D, "The thread tried to execute an invalid instruction."},
    {0xC0000025, "The thread tried to continue execution after a noncontinuable exception occurred."},
    {0xC0000026, "An exception handler returned an invalid disposition to the exception dispatcher. Programmers "
                 "using a high-level language such as C should never encounter this exception."},
    {0xC000008C, "The thread tried to access an array element that is out of bounds and the underlying hardware "
                 "supports bounds checking."},
    {0xC000008D, "One of the operands in a floating-point operation is denormal.A denormal value is one that is "
                 "too small to represent as a standard floating-point value."},
    {0xC000008E, "The thread tried to divide a floating-point value by a floating-point divisor of zero."},
    {0xC000008F, "The result of a floating-point operation cannot be represented exactly as a decimal fraction."},
    {0xC0000090, "This exception represents any floating-point exception not included in this list."},
    {0xC0000091, "The exponent of a floating-point operation is greater than the magnitude allowed by the "
                 "corresponding type."},
    {0xC0000092, "The stack overflowed or underflowed as the result of a floating-point operation."},
    {0xC0000093, "The exponent of a floating-point operation is less than the magnitude allowed by the "
                 "corresponding type."},
    {0xC0000094, "The thread tried to divide an integer value by an integer divisor of zero."},
    {0xC0000095, "The result of an integer operation caused a carry out of the most significant bit of the result."},
    {0xC0000096, "The thread tried to execute an instruction whose operation is not allowed in the current machine "
                 "mode."},
    {0xC00000FD, "The thread used up its stack."},
};

// One static buffer, overwritten by each call, as the frame expects.
char s_szInfoText[1200];
}  // namespace

const char* KvExceptionCode2Text(unsigned long dwCode)
{
    for (const KvCodeText& entry : s_aCodeTexts)
        if (entry.dwCode == dwCode)
            return entry.pszText;
    return "Unknown exception.";
}

const char* KvExceptionInfo2Text(const KvFaultInfo& info)
{
    char szApp[261];
    snprintf(szApp, sizeof(szApp), "%s", KvApplicationPath().c_str());
    int cch = snprintf(s_szInfoText, sizeof(s_szInfoText),
                       "Exception 0x%08X :\n%s\n\nIn application %s at address 0x%08lX", info.dwCode,
                       KvExceptionCode2Text(info.dwCode), szApp, static_cast<unsigned long>(info.pvAddress));
    if (info.dwCode == 0xC0000005 && info.cParams == 2 && cch > 0 && static_cast<size_t>(cch) < sizeof(s_szInfoText)) {
        const size_t cbLeft = sizeof(s_szInfoText) - static_cast<size_t>(cch);
        if (info.aParams[0] == 1 || info.aParams[0] == 0)
            snprintf(s_szInfoText + cch, cbLeft, "\nThe Thread tried to %s memory at 0x%08lX",
                     info.aParams[0] == 1 ? "write" : "read", static_cast<unsigned long>(info.aParams[1]));
        else
            snprintf(s_szInfoText + cch, cbLeft, "\n\nError in exception information");
    }
    return s_szInfoText;
}
