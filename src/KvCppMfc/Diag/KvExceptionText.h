// KvExceptionText.h - the texts that describe a hardware exception.
#pragma once

struct KvFaultInfo;

// Texts of hardware exceptions.
const char* KvExceptionCode2Text(unsigned long dwCode);
const char* KvExceptionInfo2Text(const KvFaultInfo& info);
