// Parsing XML text and files into Xml::Node trees, and loading a service's
// configuration from them. Built where the Expat parser is available.
//
// Input is treated as hostile. A document never causes a read of anything but
// itself: external entities are refused and no DTD is loaded; the parser's
// protection against entity expansion stays on; and documents larger or
// deeper than the limits are refused. Errors:
//   - malformed XML (bad tokens, invalid UTF-8, a truncated document, runaway
//     entity expansion): Xml::XMLParseException, whose ErrorCode() is the
//     parser's code and whose message names the file (when there is one), the
//     line, the column and the parser's description;
//   - a document over a limit, or declaring an external entity, or one whose
//     tree does not fit in memory: Xml::ParsingAbortedException;
//   - a file that is missing or unreadable: FileIONotFoundException,
//     FileIOPermissionDeniedException or FileIOException, naming the path.
#pragma once

#include <tessera/api.h>
#include <tessera/config.h>
#include <tessera/xml.h>

#include <cstddef>
#include <string>

namespace Tessera {
namespace Xml {

struct ParseLimits {
    // The document's size in bytes; also bounds the character data it expands to.
    // A regular file larger than this is refused from its size, unread.
    std::size_t maxBytes = 64 * 1024 * 1024;
    // How deep elements may nest; the root element is at depth 1.
    int maxDepth = 256;
    // How many elements and attributes the tree may hold, together. Each
    // takes about 100 bytes of memory (a node, an attribute, the vectors'
    // spare room) where the document may spend 4 ("<a/>") or less (an
    // entity expanding to many elements): the default keeps the tree of the
    // largest document within about twice that document's size.
    std::size_t maxNodes = 1024 * 1024;
};

// The root element of the document.
TESSERA_EXPORT Node Parse(const std::string& text, const ParseLimits& limits = ParseLimits());
TESSERA_EXPORT Node ParseFile(const std::string& path, const ParseLimits& limits = ParseLimits());

}  // namespace Xml

namespace Service {

TESSERA_EXPORT void LoadConfigText(const std::string& text, Ref<Config>& out,
                                   const Xml::ParseLimits& limits = Xml::ParseLimits());
TESSERA_EXPORT void LoadConfigFile(const std::string& path, Ref<Config>& out,
                                   const Xml::ParseLimits& limits = Xml::ParseLimits());

}  // namespace Service
}  // namespace Tessera
