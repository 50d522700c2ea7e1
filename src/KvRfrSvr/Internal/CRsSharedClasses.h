// CRsSharedClasses.h - registration of the object model's shared classes.
#pragma once

// Registers the delete function of every shared class of the model, in one fixed
// order, so that every process of this build agrees on every index. The library
// start-up, the tool and the tests call it once before attaching to the segment;
// further calls change nothing.
void KvRsRegisterSharedClasses();
