// Thread-local slots addressed by reserved keys.
//
// A key names one slot in every thread. ReserveTlsKey hands out a key; each
// thread stores its own value in that slot with SetTlsValue and reads it back
// with GetTlsValue. A key is a 32-bit value: bits 0-16 are the slot index,
// bits 17-31 a version that changes every time the index is handed out again,
// so a stale key (one that was released) is told apart from its successor:
//
//     TlsKey key = ReserveTlsKey();
//     SetTlsValue(key, &perThreadState);
//     ...
//     SetTlsValue(key, nullptr);     // before the thread ends
//     ReleaseTlsKey(key);
//
// Slots hold plain pointers and own nothing. A thread must empty its slots
// before it ends: a slot still filled at thread exit is reported as a leak.
// Reading a slot through a key whose version differs from the one the slot was
// filled through means a released key is still in use; the process stops.
#pragma once

#include <tessera/api.h>

#include <cstdint>

namespace Tessera {
namespace System {

typedef int TlsKey;

// Released indexes are reused first, last released first.
TESSERA_EXPORT TlsKey ReserveTlsKey();
TESSERA_EXPORT void ReleaseTlsKey(TlsKey key);

// The calling thread's value for `key`, or null when it has none.
TESSERA_EXPORT void* GetTlsValue(TlsKey key);
// Sets the calling thread's value for `key`; null empties the slot.
TESSERA_EXPORT void SetTlsValue(TlsKey key, void* value);

} // namespace System
} // namespace Tessera
