// Configuration views and their typed getters.

#include <tessera/assert.h>
#include <tessera/config.h>
#include <tessera/exception.h>

#include <charconv>
#include <limits>

namespace Tessera {
namespace Service {
namespace {

bool IsSpace(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// The value of an element: its text without surrounding white space.
std::string Trimmed(const std::string& text) {
    std::size_t begin = 0, end = text.size();
    while (begin < end && IsSpace(text[begin])) ++begin;
    while (end > begin && IsSpace(text[end - 1])) --end;
    return text.substr(begin, end - begin);
}

bool EqualsNoCase(const std::string& a, const char* b) noexcept {
    std::size_t i = 0;
    for (; i < a.size() && b[i] != '\0'; ++i) {
        char c = a[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c != b[i]) return false;
    }
    return i == a.size() && b[i] == '\0';
}

template <class Int>
Int ParseInteger(const std::string& value, const std::string& keyPath, const char* typeName) {
    const char* first = value.data();
    const char* last = value.data() + value.size();
    if (first != last && *first == '+' && first + 1 != last && first[1] != '-') {
        ++first; // from_chars takes "-" only
    }
    Int result = 0;
    const std::from_chars_result r = std::from_chars(first, last, result, 10);
    if (first == last || r.ptr != last ||
        (r.ec != std::errc() && r.ec != std::errc::result_out_of_range)) {
        throw NumberFormatException("Value '" + value + "' of key '" + keyPath +
                                    "' is not a decimal integer");
    }
    if (r.ec == std::errc::result_out_of_range) {
        throw NumberRangeException("Value '" + value + "' of key '" + keyPath +
                                   "' is out of the range of a " + typeName);
    }
    return result;
}

} // namespace

Config::View Config::GetView() const {
    // A view shares ownership of the tree: the Config must already be owned.
    TESSERA_ASSERT(0 != _refCount);
    return View(Ref<const Config>(this), &_root, std::string());
}

// Walks the element names of `key` from this view's node; the first child of a
// name is taken at each step.
const Xml::Node* Config::View::Find(const std::string& key) const noexcept {
    const Xml::Node* node = _node;
    std::size_t at = 0;
    while (node != nullptr && at < key.size()) {
        std::size_t end = key.find('/', at);
        if (end == std::string::npos) end = key.size();
        if (end > at) {
            const Xml::Node* next = nullptr;
            for (const Xml::Node& child : node->GetChildren()) {
                const std::string& name = child.GetName();
                if (name.size() == end - at &&
                    name.compare(0, name.size(), key, at, end - at) == 0) {
                    next = &child;
                    break;
                }
            }
            node = next;
        }
        at = end + 1;
    }
    return node;
}

std::string Config::View::KeyPath(const std::string& key) const {
    if (key.empty()) return _path;
    return _path + (key[0] == '/' ? "" : "/") + key;
}

std::string Config::View::GetString(const std::string& key, const std::string& defaultValue) const {
    const Xml::Node* node = Find(key);
    return node == nullptr ? defaultValue : Trimmed(node->GetText());
}

bool Config::View::GetBool(const std::string& key, bool defaultValue) const {
    const Xml::Node* node = Find(key);
    if (node == nullptr) return defaultValue;
    const std::string value = Trimmed(node->GetText());
    if (value == "1" || EqualsNoCase(value, "true")) return true;
    if (value == "0" || EqualsNoCase(value, "false")) return false;
    throw InvalidArgumentException("Value '" + value + "' of key '" + KeyPath(key) +
                                   "' is not a boolean (true, false, 1 or 0)");
}

std::int32_t Config::View::GetInt(const std::string& key, std::int32_t defaultValue) const {
    const Xml::Node* node = Find(key);
    if (node == nullptr) return defaultValue;
    return ParseInteger<std::int32_t>(Trimmed(node->GetText()), KeyPath(key), "32-bit integer");
}

std::int64_t Config::View::GetInt64(const std::string& key, std::int64_t defaultValue) const {
    const Xml::Node* node = Find(key);
    if (node == nullptr) return defaultValue;
    return ParseInteger<std::int64_t>(Trimmed(node->GetText()), KeyPath(key), "64-bit integer");
}

Config::View Config::View::GetChild(const std::string& key) const {
    const Xml::Node* node = Find(key);
    if (node == nullptr) return View();
    return View(_config, node, KeyPath(key));
}

std::vector<Config::View> Config::View::GetEntries(const std::string& key) const {
    std::vector<View> entries;
    const Xml::Node* node = Find(key);
    if (node == nullptr) return entries;
    const std::string base = KeyPath(key);
    entries.reserve(node->GetChildren().size());
    for (const Xml::Node& child : node->GetChildren()) {
        entries.push_back(View(_config, &child, base + "/" + child.GetName()));
    }
    return entries;
}

} // namespace Service
} // namespace Tessera
