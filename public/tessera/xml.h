// Xml::Node: an element of an XML document held in memory.
//
// A node has a name, attributes and children in document order, and the
// character data found directly inside it (the text of its children is theirs).
// Nodes are plain values: copying one copies its subtree. ToString() prints a
// node back as XML:
//
//     <log level="info">verbose<file>a.log</file></log>
//
// Text is printed before the children, so mixed content keeps its characters
// but not their interleaving with child elements. The parser does not keep
// white space that only separates child elements (a document's indentation). Parsing from text or a
// file lives in tessera/xmlParser.h.
#pragma once

#include <tessera/api.h>

#include <string>
#include <utility>
#include <vector>

namespace Tessera {
namespace Xml {

class TESSERA_EXPORT Node {
public:
    using Attribute = std::pair<std::string, std::string>;

    Node() = default;
    explicit Node(std::string name) : _name(std::move(name)) {}

    const std::string& GetName() const noexcept { return _name; }
    const std::string& GetText() const noexcept { return _text; }
    const std::vector<Attribute>& GetAttributes() const noexcept { return _attributes; }
    const std::vector<Node>& GetChildren() const noexcept { return _children; }

    // The attribute's value, or null when the node has no such attribute.
    const std::string* FindAttribute(const std::string& name) const noexcept;
    // The first child with that name, or null.
    const Node* FindChild(const std::string& name) const noexcept;

    void SetName(std::string name) { _name = std::move(name); }
    void SetText(std::string text) { _text = std::move(text); }
    void AppendText(const char* text, std::size_t length) { _text.append(text, length); }
    // Replaces the value of an existing attribute, else adds it at the end.
    void SetAttribute(const std::string& name, std::string value);
    // Adds an attribute at the end without looking for one of the same name,
    // for a caller that knows the name is new (a parser, whose documents
    // cannot repeat one); a node with many attributes is built in linear time.
    void AddAttribute(std::string name, std::string value);
    // Appends a child and returns it. The reference stays valid until the next
    // child is added to this node.
    Node& AddChild(Node child);
    Node& AddChild(std::string name);
    Node& AddChild(const char* name);

    // The node and its subtree as XML text, with &, <, >, " and ' escaped, and
    // carriage returns (and tabs and line feeds in attribute values) written
    // as character references, so that the text parses back to the same tree.
    std::string ToString() const;
    void AppendTo(std::string& out) const;

private:
    std::string _name;
    std::string _text;
    std::vector<Attribute> _attributes;
    std::vector<Node> _children;
};

}  // namespace Xml
}  // namespace Tessera
