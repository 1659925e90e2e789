// Included first by every public header.
#pragma once

#include <tessera/exportDefs.h>

#ifdef _MSC_VER
// Interfaces derive virtually from Object and ObjectImpl supplies their
// operations: inheritance by dominance is the design (C4250). Exported classes
// hold standard-library members that callers never touch directly (C4251).
#pragma warning(disable : 4250 4251)
#endif
