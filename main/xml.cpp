// The in-memory XML tree and its text form.

#include <tessera/xml.h>

namespace Tessera {
namespace Xml {
namespace {

// Besides the markup characters, those a parser would not give back as they
// are: a carriage return anywhere (line ends are read as line feeds), and tabs
// and line feeds in attribute values (read as spaces).
void AppendEscaped(std::string& out, const std::string& text, bool attribute) {
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&apos;"; break;
        case '\r': out += "&#13;"; break;
        case '\t':
            out += attribute ? "&#9;" : "\t";
            break;
        case '\n':
            out += attribute ? "&#10;" : "\n";
            break;
        default: out += c; break;
        }
    }
}

} // namespace

const std::string* Node::FindAttribute(const std::string& name) const noexcept {
    for (const Attribute& a : _attributes) {
        if (a.first == name) return &a.second;
    }
    return nullptr;
}

const Node* Node::FindChild(const std::string& name) const noexcept {
    for (const Node& child : _children) {
        if (child._name == name) return &child;
    }
    return nullptr;
}

void Node::SetAttribute(const std::string& name, std::string value) {
    for (Attribute& a : _attributes) {
        if (a.first == name) {
            a.second = std::move(value);
            return;
        }
    }
    _attributes.emplace_back(name, std::move(value));
}

void Node::AddAttribute(std::string name, std::string value) {
    _attributes.emplace_back(std::move(name), std::move(value));
}

Node& Node::AddChild(Node child) {
    _children.push_back(std::move(child));
    return _children.back();
}

Node& Node::AddChild(std::string name) {
    _children.emplace_back(std::move(name));
    return _children.back();
}

Node& Node::AddChild(const char* name) {
    _children.emplace_back(name);
    return _children.back();
}

void Node::AppendTo(std::string& out) const {
    out += '<';
    out += _name;
    for (const Attribute& a : _attributes) {
        out += ' ';
        out += a.first;
        out += "=\"";
        AppendEscaped(out, a.second, true);
        out += '"';
    }
    if (_text.empty() && _children.empty()) {
        out += "/>";
        return;
    }
    out += '>';
    AppendEscaped(out, _text, false);
    for (const Node& child : _children) {
        child.AppendTo(out);
    }
    out += "</";
    out += _name;
    out += '>';
}

std::string Node::ToString() const {
    std::string out;
    AppendTo(out);
    return out;
}

} // namespace Xml
} // namespace Tessera
