// KvInitOrder.h - the library's load-time order, fixed in code instead of by the
// order in which the linker happens to place its objects: first the library's
// own statics that need running code, then the start-up that attaches the
// segment, and only then every static of the program that links the library
// (default priority). A program's static initialiser may therefore call the
// library, whether the library is linked statically or loaded as a shared one.
#pragma once

// For the library's namespace-scope objects with dynamic initialisation.
#define KV_INIT_STATICS __attribute__((init_priority(1001)))
// For the start-up function: __attribute__((constructor(KV_INIT_STARTUP))).
#define KV_INIT_STARTUP 1002
