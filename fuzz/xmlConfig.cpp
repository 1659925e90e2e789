// XML documents into configuration trees, with small limits so that each is
// reached quickly, and the configuration views over what was built.
//
// Checked: a document either loads or is refused with XMLParseException or
// ParsingAbortedException (no other exception, std::bad_alloc included); the
// tree keeps within the limits; its text form parses back to the same text;
// and every view getter agrees with the tree it reads.

#include "fuzz/fuzzCheck.h"

#include <tessera/config.h>
#include <tessera/exception.h>
#include <tessera/xml.h>
#include <tessera/xmlParser.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

using Tessera::Ref;
using Tessera::Service::Config;
namespace Xml = Tessera::Xml;

namespace {

Xml::ParseLimits SmallLimits() {
    Xml::ParseLimits limits;
    limits.maxBytes = 4096;
    limits.maxDepth = 12;
    limits.maxNodes = 300;
    return limits;
}

std::size_t CountNodes(const Xml::Node& node, int depth, int& deepest) {
    if (depth > deepest) deepest = depth;
    std::size_t count = 1 + node.GetAttributes().size();
    for (const Xml::Node& child : node.GetChildren())
        count += CountNodes(child, depth + 1, deepest);
    return count;
}

bool IsSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

std::string Trimmed(const std::string& text) {
    std::size_t begin = 0, end = text.size();
    while (begin < end && IsSpace(text[begin])) ++begin;
    while (end > begin && IsSpace(text[end - 1])) --end;
    return text.substr(begin, end - begin);
}

// The value of a decimal integer within [low, high]; empty when the text is
// not one (`range` false) or out of range (`range` true).
std::optional<long long> Integer(const std::string& text, long long low, long long high,
                                 bool& range) {
    range = false;
    std::size_t i = 0;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    if (i == text.size()) return std::nullopt;
    unsigned long long magnitude = 0;
    bool over = false;
    for (; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') return std::nullopt;
        if (magnitude > (~0ull - 9) / 10) over = true;
        if (!over) magnitude = magnitude * 10 + static_cast<unsigned>(text[i] - '0');
    }
    const unsigned long long limit = negative ? static_cast<unsigned long long>(-(low + 1)) + 1
                                              : static_cast<unsigned long long>(high);
    if (over || magnitude > limit) {
        range = true;
        return std::nullopt;
    }
    return negative ? static_cast<long long>(0ull - magnitude) : static_cast<long long>(magnitude);
}

std::string Lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

// Reads every child of `view` through the getters and checks each against
// the node it names.
void Walk(const Config::View& view, int depth) {
    const Xml::Node* node = view.GetNode();
    FUZZ_CHECK(node != nullptr);
    const std::vector<Config::View> entries = view.GetEntries();
    FUZZ_CHECK(entries.size() == node->GetChildren().size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const Xml::Node& child = node->GetChildren()[i];
        const std::string& name = child.GetName();
        FUZZ_CHECK(entries[i].GetNode() == &child);
        FUZZ_CHECK(entries[i].GetPath() == view.GetPath() + "/" + name);
        // A key names the first child of its name.
        const Xml::Node* first = node->FindChild(name);
        FUZZ_CHECK(view.Has(name) && view.GetChild(name).GetNode() == first);
        FUZZ_CHECK(view.Has("/" + name) && view.GetChild("/" + name + "/").GetNode() == first);
        // The getters read the first child of the name: once for each name
        // (each refused value costs an exception with its backtrace).
        if (&child != first) continue;
        const std::string value = Trimmed(first->GetText());
        FUZZ_CHECK(view.GetString(name, "default") == value);

        const std::string lower = Lower(value);
        std::optional<bool> flag;
        if (value == "1" || lower == "true") flag = true;
        if (value == "0" || lower == "false") flag = false;
        try {
            const bool b = view.GetBool(name, !flag.value_or(false));
            FUZZ_CHECK(flag && b == *flag);
        } catch (const Tessera::InvalidArgumentException&) {
            FUZZ_CHECK(!flag);
        }

        bool range = false;
        const std::optional<long long> small = Integer(value, INT32_MIN, INT32_MAX, range);
        try {
            const long long got = view.GetInt(name, 7);
            FUZZ_CHECK(small && got == *small);
        } catch (const Tessera::NumberRangeException&) {
            FUZZ_CHECK(!small && range);
        } catch (const Tessera::NumberFormatException&) {
            FUZZ_CHECK(!small && !range);
        }
        const std::optional<long long> large = Integer(value, INT64_MIN, INT64_MAX, range);
        try {
            const long long got = view.GetInt64(name, 7);
            FUZZ_CHECK(large && got == *large);
        } catch (const Tessera::NumberRangeException&) {
            FUZZ_CHECK(!large && range);
        } catch (const Tessera::NumberFormatException&) {
            FUZZ_CHECK(!large && !range);
        }

        Walk(entries[i], depth + 1);
    }
    // Absent keys give the defaults.
    FUZZ_CHECK(!view.Has("no such key") && view.GetString("a/no such key", "d") == "d");
    FUZZ_CHECK(view.GetInt64("no such key", -5) == -5 && !view.GetChild("no such key").Exists());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Xml::ParseLimits limits = SmallLimits();
    Ref<Config> config;
    try {
        Tessera::Service::LoadConfigText(text, config, limits);
    } catch (const Xml::XMLParseException&) {
        return 0;
    } catch (const Xml::ParsingAbortedException&) {
        return 0;
    }
    const Xml::Node& root = config->GetRoot();
    int deepest = 0;
    FUZZ_CHECK(CountNodes(root, 1, deepest) <= limits.maxNodes);
    FUZZ_CHECK(deepest <= limits.maxDepth);

    // The text form reads back as itself.
    const std::string printed = root.ToString();
    FUZZ_CHECK(Xml::Parse(printed).ToString() == printed);

    Walk(config->GetView(), 1);
    return 0;
}
