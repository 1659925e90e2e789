// Starting the library's services from a service's configuration.
//
// A host service calls Initialize once, early, with the view of its
// configuration's root. It sets up, in this order, what the configuration asks
// for:
//   - "refTracker": the ref tracker (tessera/census.h), tracking the types
//     named by the "className" of each of the node's entries:
//         <refTracker>
//           <entry><className>N7MyTypes7SessionE</className></entry>
//         </refTracker>
//     A name must be spelt exactly as std::type_info::name() gives it.
// Logging and the thread pool join this sequence as they arrive.
#pragma once

#include <tessera/api.h>
#include <tessera/config.h>

namespace Tessera {
namespace Service {

// Throws AlreadyInitializedException when called after a successful call. A
// call that throws for a bad setting has started nothing and may be repeated.
TESSERA_EXPORT void Initialize(const Config::View& config);

} // namespace Service
} // namespace Tessera
