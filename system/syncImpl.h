// The free-standing locks and conditions the system factory makes.
#pragma once

#include <tessera/system/condition.h>
#include <tessera/system/mutex.h>
#include <tessera/system/rwLock.h>

namespace Tessera {
namespace System {

class MutexImpl final : public LockableObjectImpl, public Mutex {};

class RWLockImpl final : public RWLockableObjectImpl, public RWLock {
public:
    explicit RWLockImpl(LockMode mode) noexcept : RWLockableObjectImpl(mode) {}
};

class ConditionImpl final : public WaitableObjectImpl, public Condition {};

} // namespace System
} // namespace Tessera
