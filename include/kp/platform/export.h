// KP_EXPORT marks what the shared library shows to its hosts. The library is built with
// hidden visibility, so a class or function without the mark stays inside it: the mark goes
// on every class with a vtable or out-of-line members and every function that a host calls
// (declarations in include/kp), and never on the internals under src/.
//
// Classes whose members are all inline and enums need no mark. Class templates with virtual
// members carry it, so that the instantiations the library makes are the ones the whole
// process uses.
//
// Thread safety: not applicable (a macro).
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define KP_EXPORT __attribute__((visibility("default")))
#else
#define KP_EXPORT
#endif
