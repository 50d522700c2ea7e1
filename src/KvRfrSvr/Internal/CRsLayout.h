// CRsLayout.h - small helpers shared by the object model: the module text of its
// consistency reports and the layout pins of its packed shared structures.
#pragma once

#include <cstddef>

#include "KvCppMfc/Diag/KvDiag.h"

// Module named in every internal-consistency report of the object model.
#define KV_RS_MODULE "KvRfrSvr/Internal"

// Reports the failed statement's own text and goes on (never refuses).
#define KV_RS_CHECK(cond) KV_CHECK(cond, KV_RS_MODULE)

// Pins a field offset of a packed shared class. The classes derive from the
// shared-object header, so they are not standard-layout and offsetof would warn;
// with single, non-virtual inheritance and one-byte packing GCC's offsetof is exact.
// clang-format off
#define KV_RS_PIN_OFFSET(T, m, off)                                            \
    _Pragma("GCC diagnostic push")                                             \
    _Pragma("GCC diagnostic ignored \"-Winvalid-offsetof\"")                   \
    static_assert(offsetof(T, m) == (off), #T "::" #m " is at offset " #off);  \
    _Pragma("GCC diagnostic pop")
// clang-format on

// Byte width of a pointer-sized field (a caller's target handle).
constexpr size_t KV_RS_PTR = sizeof(void*);
