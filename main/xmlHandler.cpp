// Building Xml::Node trees with Expat, with hostile input in mind.

#include <tessera/exception.h>
#include <tessera/xmlParser.h>

#include "system/platform/inputFile.h"
#include "system/platform/nativeError.h"
#include "system/utf8.h"

#include <expat.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
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

    // The document's size, known before it is read.
    void ExpectBytes(unsigned long long size) {
        if (size > _limits.maxBytes) {
            throw ParsingAbortedException("XML file '" + _fileName + "' is larger (" +
                                          std::to_string(size) + " bytes) than the limit of " +
                                          std::to_string(_limits.maxBytes) + " bytes");
        }
    }

    Node TakeRoot() { return std::move(_root); }

private:
    struct FreeParser {
        void operator()(XML_Parser p) const { XML_ParserFree(p); }
    };

    std::string Where() const {
        std::string where =
            _fileName.empty() ? std::string("XML document") : "XML file '" + _fileName + "'";
        return where + ", line " + std::to_string(XML_GetCurrentLineNumber(_parser.get())) +
               ", column " + std::to_string(XML_GetCurrentColumnNumber(_parser.get()) + 1) + ": ";
    }

    [[noreturn]] void Fail() {
        if (_failure) {
            std::rethrow_exception(_failure);
        }
        if (!_abortReason.empty()) {
            throw ParsingAbortedException(_abortReason);
        }
        const XML_Error code = XML_GetErrorCode(_parser.get());
        throw XMLParseException("Error parsing " + Where() + XML_ErrorString(code),
                                static_cast<int>(code));
    }

    void Abort(const std::string& reason) {
        if (_abortReason.empty()) _abortReason = Where() + reason;
        Stop();
    }

    // A stopped parser may still report what it had in hand: it is ignored.
    void Stop() noexcept {
        _stopped = true;
        XML_StopParser(_parser.get(), XML_FALSE);
    }

    // Runs a handler's work; an exception (std::bad_alloc above all) must not
    // unwind through the parser, so it stops the parser and is thrown again
    // once XML_Parse has returned.
    template <class F>
    void Guarded(F work) noexcept {
        if (_stopped) return;
        try {
            work();
        } catch (...) {
            _failure = std::current_exception();
            Stop();
        }
    }

    static void XMLCALL OnStart(void* self, const XML_Char* name, const XML_Char** attributes) {
        auto* b = static_cast<TreeBuilder*>(self);
        b->Guarded([&] { b->Start(name, attributes); });
    }

    void Start(const XML_Char* name, const XML_Char** attributes) {
        if (static_cast<int>(_open.size()) >= _limits.maxDepth) {
            Abort("elements nest deeper than the limit of " + std::to_string(_limits.maxDepth));
            return;
        }
        std::size_t count = 0;
        std::size_t valueBytes = 0;
        for (; attributes[2 * count] != nullptr; ++count) {
            valueBytes += std::strlen(attributes[2 * count + 1]);
        }
        // Attribute values are character data too, entities expanded.
        if (!CountText(valueBytes)) return;
        if (count + 1 > _limits.maxNodes - _nodes) {
            Abort("the document has more elements and attributes than the limit of " +
                  std::to_string(_limits.maxNodes));
            return;
        }
        _nodes += count + 1;
        Node* node;
        if (_open.empty()) {
            _root.SetName(name);
            node = &_root;
        } else {
            DropSeparatingSpace(_open.back());
            // Only the innermost open node gains children, so the pointers to
            // its ancestors on the stack stay valid.
            node = &_open.back().node->AddChild(name);
        }
        // The parser refuses a repeated attribute, so each is simply added.
        for (std::size_t i = 0; i < count; ++i) {
            node->AddAttribute(attributes[2 * i], attributes[2 * i + 1]);
        }
        _open.push_back(Open{node, true, std::string()});
    }

    static void XMLCALL OnEnd(void* self, const XML_Char*) {
        auto* b = static_cast<TreeBuilder*>(self);
        b->Guarded([&] {
            Open& open = b->_open.back();
            if (!open.node->GetChildren().empty()) DropSeparatingSpace(open);
            b->_open.pop_back();
        });
    }

    // An element being built: whether all its text so far is white space, and
    // the white space after its latest child, not yet known to be text.
    struct Open {
        Node* node;
        bool onlySpace;
        std::string heldSpace;
    };

    // White space that only separates child elements (the indentation of a
    // document) is not text: it is dropped when the next child or the end of
    // the parent shows that nothing else came with it.
    static void DropSeparatingSpace(Open& open) {
        if (open.onlySpace && !open.node->GetText().empty()) {
            open.node->SetText(std::string());
        }
        open.heldSpace.clear();
    }

    static bool IsSpace(const char* text, int length) {
        for (int i = 0; i < length; ++i) {
            const char c = text[i];
            if (c != ' ' && c != '\t' && c != '\n' && c != '\r') return false;
        }
        return true;
    }

    // Adds to the character data of the document; false when it is over the
    // limit, and the parse aborted.
    bool CountText(std::size_t bytes) {
        _textBytes += bytes;
        if (_textBytes > _limits.maxBytes) {
            Abort("the character data is larger than the limit of " +
                  std::to_string(_limits.maxBytes) + " bytes");
            return false;
        }
        return true;
    }

    static void XMLCALL OnText(void* self, const XML_Char* text, int length) {
        auto* b = static_cast<TreeBuilder*>(self);
        b->Guarded([&] { b->Text(text, length); });
    }

    void Text(const XML_Char* text, int length) {
        if (_open.empty() || !CountText(static_cast<std::size_t>(length))) return;
        Open& open = _open.back();
        const bool space = IsSpace(text, length);
        if (!open.node->GetChildren().empty()) {
            // After a child, white space is held back until text that is not
            // shows that it belongs to it; however the parser splits the run.
            if (space) {
                open.heldSpace.append(text, static_cast<std::size_t>(length));
                return;
            }
            open.node->AppendText(open.heldSpace.data(), open.heldSpace.size());
            open.heldSpace.clear();
        }
        open.onlySpace = open.onlySpace && space;
        open.node->AppendText(text, static_cast<std::size_t>(length));
    }

    static void XMLCALL OnEntityDecl(void* self, const XML_Char* name, int, const XML_Char*, int,
                                     const XML_Char*, const XML_Char* systemId,
                                     const XML_Char* publicId, const XML_Char*) {
        if (systemId != nullptr || publicId != nullptr) {
            auto* b = static_cast<TreeBuilder*>(self);
            b->Guarded([&] { b->Abort("external entity '" + std::string(name) + "' refused"); });
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
    std::vector<Open> _open;
    std::size_t _bytes = 0;
    std::size_t _textBytes = 0;
    std::size_t _nodes = 0;
    std::string _abortReason;
    std::exception_ptr _failure;
    bool _stopped = false;
};

struct InputFileCloser {
    System::Platform::InputFile file;
    ~InputFileCloser() { System::Platform::CloseInputFile(file); }
};

} // namespace

// Runs a parse; memory running out on the way ends it as a refused document.
// The exception is made after the unwinding has freed the partial tree.
template <class F>
auto WithinMemory(const std::string* path, F parse) -> decltype(parse()) {
    try {
        return parse();
    } catch (const std::bad_alloc&) {
        throw ParsingAbortedException(
            (path == nullptr ? std::string("XML document") : "XML file '" + *path + "'") +
            ": not enough memory to hold the document");
    }
}

Node Parse(const std::string& text, const ParseLimits& limits) {
    return WithinMemory(nullptr, [&] {
        TreeBuilder builder(limits, std::string());
        builder.Feed(text.data(), text.size(), true);
        return builder.TakeRoot();
    });
}

Node ParseFile(const std::string& path, const ParseLimits& limits) {
    System::RequireUtf8(path, "Path");
    return WithinMemory(&path, [&] {
        System::Platform::InputFile handle = System::Platform::kNoInputFile;
        long long size = -1;
        const System::Platform::NativeError error =
            System::Platform::OpenInputFile(path, handle, size);
        if (error != System::Platform::kSuccess) {
            System::ThrowFileError(error, "Cannot open XML file", path);
        }
        const InputFileCloser closer{handle};
        TreeBuilder builder(limits, path);
        if (size >= 0) builder.ExpectBytes(static_cast<unsigned long long>(size));
        std::vector<char> chunk(64 * 1024);
        for (;;) {
            std::size_t n = 0;
            const System::Platform::NativeError readError =
                System::Platform::ReadInputFile(handle, chunk.data(), chunk.size(), n);
            if (readError != System::Platform::kSuccess) {
                System::ThrowFileError(readError, "Cannot read XML file", path);
            }
            builder.Feed(chunk.data(), n, n == 0);
            if (n == 0) break;
        }
        return builder.TakeRoot();
    });
}

} // namespace Xml

namespace Service {

void LoadConfigText(const std::string& text, Ref<Config>& out, const Xml::ParseLimits& limits) {
    Xml::Node root = Xml::Parse(text, limits);
    out = Xml::WithinMemory(nullptr, [&] { return new Config(std::move(root)); });
}

void LoadConfigFile(const std::string& path, Ref<Config>& out, const Xml::ParseLimits& limits) {
    Xml::Node root = Xml::ParseFile(path, limits);
    out = Xml::WithinMemory(&path, [&] { return new Config(std::move(root)); });
}

} // namespace Service
} // namespace Tessera
