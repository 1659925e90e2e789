// The core object model in one include: atomics, counted objects, the census,
// weak links, the exception tree and the assertion path.
#pragma once

#include <tessera/assert.h>
#include <tessera/atomic.h>
#include <tessera/census.h>
#include <tessera/exception.h>
#include <tessera/object.h>
#include <tessera/weak.h>
