// KvDiag.h - the diagnostics, one header per concept, for code that uses several:
//   KvDebugOutput.h    the debug file and the return-code helpers
//   KvUiSink.h         the sink of boxes, tones and error-window lines
//   KvErrorWindow.h    the error window's newest lines
//   KvErrorReport.h    internal-consistency reports (KV_CHECK)
//   KvThrow.h          raising an internal error
//   KvExceptionText.h  texts of hardware exceptions
#pragma once

#include "KvDebugOutput.h"
#include "KvErrorReport.h"
#include "KvErrorWindow.h"
#include "KvExceptionText.h"
#include "KvThrow.h"
#include "KvUiSink.h"
