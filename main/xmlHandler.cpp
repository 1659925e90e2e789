// Building Xml::Node trees with Expat, with hostile input in mind.

#include <tessera/exception.h>
#include <tessera/xmlParser.h>

#include <expat.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <vector>

namespace Tessera {
namespace Xml {
namespace {

class TreeBuilder {
public:
    TreeBuilder(const ParseLimits& limits, std::string fileName)
        : _limits(limits), _fileName(std::move(fileName)), _parser(XML_ParserCreate(nullptr)) {
        if (_parser == nullptr) throw std::bad_alloc();
        XML_SetUserData(_parser.get(), this);
        XML_SetElementHandler(_parser.get(), &TreeBuilder::OnStart, &TreeBuilder::OnEnd);
        XML_SetCharacterDataHandler(_parser.get(), &TreeBuilder::OnText);
        XML_SetEntityDeclHandler(_parser.get(), &TreeBuilder::OnEntityDecl);
        // No external DTD or parameter entity is ever fetched, and a reference
        // to an external entity fails instead of being skipped.
        XML_SetParamEntityParsing(_parser.get(), XML_PARAM_ENTITY_PARSING_NEVER);
        XML_SetExternalEntityRefHandler(_parser.get(), &TreeBuilder::OnExternalEntity);
    }

    // Feeds the next piece of the document; `last` marks its end.
    void Feed(const char* data, std::size_t length, bool last) {
        _bytes += length;
        if (_bytes > _limits.maxBytes) {
            throw ParsingAbortedException(Where() + "the document is larger than the limit of " +
                                          std::to_string(_limits.maxBytes) + " bytes");
        }
        if (XML_Parse(_parser.get(), data, static_cast<int>(length), last ? XML_TRUE : XML_FALSE) !=
            XML_STATUS_OK) {
            Fail();
        }
    }

    Node TakeRoot() { return std::move(_root); }

private:
    struct FreeParser {
        void operator()(XML_Parser p) const { XML_ParserFree(p); }
    };

    std::string Where() const {
        std::string where = _fileName.empty() ? std::string("XML document")
                                              : "XML file '" + _fileName + "'";
        return where + ", line " + std::to_string(XML_GetCurrentLineNumber(_parser.get())) +
               ", column " + std::to_string(XML_GetCurrentColumnNumber(_parser.get()) + 1) + ": ";
    }

    [[noreturn]] void Fail() {
        if (!_abortReason.empty()) {
            throw ParsingAbortedException(_abortReason);
        }
        const XML_Error code = XML_GetErrorCode(_parser.get());
        throw XMLParseException("Error parsing " + Where() + XML_ErrorString(code),
                                static_cast<int>(code));
    }

    void Abort(const std::string& reason) {
        if (_abortReason.empty()) _abortReason = Where() + reason;
        XML_StopParser(_parser.get(), XML_FALSE);
    }

    static void XMLCALL OnStart(void* self, const XML_Char* name, const XML_Char** attributes) {
        auto* b = static_cast<TreeBuilder*>(self);
        if (static_cast<int>(b->_open.size()) >= b->_limits.maxDepth) {
            b->Abort("elements nest deeper than the limit of " +
                     std::to_string(b->_limits.maxDepth));
            return;
        }
        Node* node;
        if (!b->_open.empty()) {
            b->DropSeparatingSpace(*b->_open.back());
        }
        if (b->_open.empty()) {
            b->_root.SetName(name);
            node = &b->_root;
        } else {
            // Only the innermost open node gains children, so the pointers to
            // its ancestors on the stack stay valid.
            node = &b->_open.back()->AddChild(name);
        }
        for (const XML_Char** a = attributes; *a != nullptr; a += 2) {
            node->SetAttribute(a[0], a[1]);
        }
        b->_open.push_back(node);
    }

    static void XMLCALL OnEnd(void* self, const XML_Char*) {
        auto* b = static_cast<TreeBuilder*>(self);
        Node* node = b->_open.back();
        if (!node->GetChildren().empty()) b->DropSeparatingSpace(*node);
        b->_open.pop_back();
    }

    // White space that only separates child elements (the indentation of a
    // document) is not text: it is dropped when the next child or the end of
    // the parent shows that nothing else came with it.
    static void DropSeparatingSpace(Node& node) {
        const std::string& text = node.GetText();
        if (!text.empty() && IsSpace(text.data(), static_cast<int>(text.size()))) {
            node.SetText(std::string());
        }
    }

    static bool IsSpace(const char* text, int length) {
        for (int i = 0; i < length; ++i) {
            const char c = text[i];
            if (c != ' ' && c != '\t' && c != '\n' && c != '\r') return false;
        }
        return true;
    }

    static void XMLCALL OnText(void* self, const XML_Char* text, int length) {
        auto* b = static_cast<TreeBuilder*>(self);
        if (b->_open.empty()) return;
        b->_textBytes += static_cast<std::size_t>(length);
        if (b->_textBytes > b->_limits.maxBytes) {
            b->Abort("the character data is larger than the limit of " +
                     std::to_string(b->_limits.maxBytes) + " bytes");
            return;
        }
        Node& node = *b->_open.back();
        if (!node.GetChildren().empty() && IsSpace(text, length)) {
            return; // separating space after a child: not kept
        }
        node.AppendText(text, static_cast<std::size_t>(length));
    }

    static void XMLCALL OnEntityDecl(void* self, const XML_Char* name, int, const XML_Char*, int,
                                     const XML_Char*, const XML_Char* systemId,
                                     const XML_Char* publicId, const XML_Char*) {
        if (systemId != nullptr || publicId != nullptr) {
            static_cast<TreeBuilder*>(self)->Abort("external entity '" + std::string(name) +
                                                   "' refused");
        }
    }

    static int XMLCALL OnExternalEntity(XML_Parser, const XML_Char*, const XML_Char*,
                                        const XML_Char*, const XML_Char*) {
        return XML_STATUS_ERROR;
    }

    const ParseLimits _limits;
    const std::string _fileName;
    std::unique_ptr<XML_ParserStruct, FreeParser> _parser;
    Node _root;
    std::vector<Node*> _open;
    std::size_t _bytes = 0;
    std::size_t _textBytes = 0;
    std::string _abortReason;
};

} // namespace

Node Parse(const std::string& text, const ParseLimits& limits) {
    TreeBuilder builder(limits, std::string());
    builder.Feed(text.data(), text.size(), true);
    return builder.TakeRoot();
}

Node ParseFile(const std::string& path, const ParseLimits& limits) {
    struct CloseFile {
        void operator()(std::FILE* f) const { std::fclose(f); }
    };
    errno = 0;
    std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "rb"));
    if (!file) {
        const int error = errno;
        const std::string detail = "'" + path + "': " + SystemException::GetSystemMessage(error);
        if (error == ENOENT) throw FileIONotFoundException("Cannot open XML file " + detail);
        if (error == EACCES || error == EPERM) {
            throw FileIOPermissionDeniedException("Cannot open XML file " + detail);
        }
        throw FileIOException("Cannot open XML file " + detail);
    }
    TreeBuilder builder(limits, path);
    std::vector<char> chunk(64 * 1024);
    for (;;) {
        const std::size_t n = std::fread(chunk.data(), 1, chunk.size(), file.get());
        if (n < chunk.size() && std::ferror(file.get())) {
            throw FileIOException("Cannot read XML file '" + path + "'");
        }
        const bool last = n < chunk.size();
        builder.Feed(chunk.data(), n, last);
        if (last) break;
    }
    return builder.TakeRoot();
}

} // namespace Xml

namespace Service {

void LoadConfigText(const std::string& text, Ref<Config>& out, const Xml::ParseLimits& limits) {
    out = new Config(Xml::Parse(text, limits));
}

void LoadConfigFile(const std::string& path, Ref<Config>& out, const Xml::ParseLimits& limits) {
    out = new Config(Xml::ParseFile(path, limits));
}

} // namespace Service
} // namespace Tessera
