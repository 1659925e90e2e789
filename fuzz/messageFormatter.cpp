// Message templates over typed arguments with printf option strings.
//
// The input is text: the template on the first line, then one argument a
// line (at most nine), each a kind letter, the value, and optionally "|" and
// an option string:
//
//     Request %1 took %2 ms (%3)
//     i42
//     d3.25|%.1f ms
//     Sslow
//
// Kinds: b bool, c char, i int, u unsigned, z long, l long long, L unsigned
// long long, f float, d double, p pointer, s C string, n null C string,
// S std::string, e std::exception, x XML node, t DateTime.
//
// Checked: a template either expands or throws InvalidFormatStringException,
// onto a writer and into a string alike; the expansion is the template with
// each placeholder replaced by its argument's text; and the argument texts
// that have a reference (plain numbers, floating point under simple options)
// match it.

#include "fuzz/fuzzCheck.h"

#include <tessera/exception.h>
#include <tessera/formatter.h>
#include <tessera/system/dateTime.h>
#include <tessera/writer.h>
#include <tessera/xml.h>

#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

using Tessera::InvalidFormatStringException;
using Tessera::MessageFormatter;
using Tessera::PrintFormatter;

namespace {

// One argument, holding its value for as long as the formatter points to it.
struct Argument {
    char kind = 'i';
    std::string value;
    bool hasOptions = false;
    std::string options;

    long long integer = 0;
    unsigned long long unsignedInteger = 0;
    double floating = 0.0;
    std::unique_ptr<std::runtime_error> error;
    std::unique_ptr<Tessera::Xml::Node> node;
    std::unique_ptr<Tessera::System::DateTime> time;

    std::optional<PrintFormatter> formatter;
    // The text the argument must print, where there is a reference for it.
    std::optional<std::string> expected;
};

std::string Printf(const char* format, double value) {
    const int n = std::snprintf(nullptr, 0, format, value);
    FUZZ_CHECK(n >= 0);
    std::string text(static_cast<std::size_t>(n) + 1, '\0');
    std::snprintf(&text[0], text.size(), format, value);
    text.resize(static_cast<std::size_t>(n));
    return text;
}

// Options that printf itself reads as they stand for a double: literal text
// without "%", then "%", flags, a width and precision of at most four digits
// and a floating-point conversion, then literal text without "%".
bool IsPlainFloatingConversion(const std::string& options) {
    const std::size_t percent = options.find('%');
    if (percent == std::string::npos || options.find('%', percent + 1) != std::string::npos) {
        return false;
    }
    std::size_t i = percent + 1;
    while (i < options.size() && std::strchr("-+ #0", options[i]) != nullptr && options[i] != 0) {
        ++i;
    }
    auto digits = [&] {
        std::size_t start = i;
        while (i < options.size() && options[i] >= '0' && options[i] <= '9') ++i;
        return i - start <= 4;
    };
    if (!digits()) return false;
    if (i < options.size() && options[i] == '.') {
        ++i;
        if (!digits()) return false;
    }
    return i < options.size() && options[i] != '\0' &&
           std::strchr("fFeEgGaA", options[i]) != nullptr &&
           options.find('\0') == std::string::npos;
}

void Build(Argument& a) {
    const char* options = a.hasOptions ? a.options.c_str() : nullptr;
    const char* text = a.value.c_str();
    errno = 0;
    switch (a.kind) {
    case 'b':
        a.formatter.emplace(a.value == "1", options);
        a.expected = a.value == "1" ? "true" : "false";
        break;
    case 'c':
        a.formatter.emplace(a.value.empty() ? 'x' : a.value[0], options);
        if (!options) a.expected = std::string(1, a.value.empty() ? 'x' : a.value[0]);
        break;
    case 'u':
        a.unsignedInteger = std::strtoull(text, nullptr, 0);
        a.formatter.emplace(static_cast<unsigned>(a.unsignedInteger), options);
        if (!options) a.expected = std::to_string(static_cast<unsigned>(a.unsignedInteger));
        break;
    case 'z':
        a.integer = std::strtoll(text, nullptr, 0);
        a.formatter.emplace(static_cast<long>(a.integer), options);
        if (!options) a.expected = std::to_string(static_cast<long>(a.integer));
        break;
    case 'l':
        a.integer = std::strtoll(text, nullptr, 0);
        a.formatter.emplace(a.integer, options);
        if (!options) a.expected = std::to_string(a.integer);
        break;
    case 'L':
        a.unsignedInteger = std::strtoull(text, nullptr, 0);
        a.formatter.emplace(a.unsignedInteger, options);
        if (!options) a.expected = std::to_string(a.unsignedInteger);
        break;
    case 'f': {
        double d = std::strtod(text, nullptr);
        // Out of a float's range is undefined: clamp first.
        const double most = std::numeric_limits<float>::max();
        if (d > most) d = std::isinf(d) ? d : most;
        if (d < -most) d = std::isinf(d) ? d : -most;
        const float f = static_cast<float>(d);
        a.formatter.emplace(f, options);
        if (!options) {
            a.expected = Printf("%f", f);
        } else if (IsPlainFloatingConversion(a.options)) {
            a.expected = Printf(a.options.c_str(), f);
        }
        break;
    }
    case 'd':
        a.floating = std::strtod(text, nullptr);
        a.formatter.emplace(a.floating, options);
        if (!options) {
            a.expected = Printf("%g", a.floating);
        } else if (IsPlainFloatingConversion(a.options)) {
            a.expected = Printf(a.options.c_str(), a.floating);
        }
        break;
    case 'p': {
        a.unsignedInteger = std::strtoull(text, nullptr, 16);
        const void* p =
            reinterpret_cast<const void*>(static_cast<std::uintptr_t>(a.unsignedInteger));
        a.formatter.emplace(p, options);
        if (!options) {
            char hex[17];
            std::snprintf(hex, sizeof(hex), "%016llx",
                          static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p)));
            a.expected = hex;
        }
        break;
    }
    case 's':
        a.formatter.emplace(text, options);
        a.expected = std::string(text);
        break;
    case 'n':
        a.formatter.emplace(static_cast<const char*>(nullptr), options);
        a.expected = "(null)";
        break;
    case 'S':
        a.formatter.emplace(a.value, options);
        a.expected = a.value;
        break;
    case 'e':
        a.error.reset(new std::runtime_error(a.value));
        a.formatter.emplace(*a.error, options);
        a.expected = std::string(typeid(std::runtime_error).name()) + "(" + a.error->what() + ")";
        break;
    case 'x':
        a.node.reset(new Tessera::Xml::Node(a.value));
        a.node->SetText(a.value);
        a.node->SetAttribute("v", a.value);
        a.formatter.emplace(*a.node, options);
        a.expected = a.node->ToString();
        break;
    case 't': try { a.time.reset(new Tessera::System::DateTime(a.value));
        } catch (const Tessera::DateTimeFormatException&) {
            a.time.reset(new Tessera::System::DateTime());
        }
        a.formatter.emplace(*a.time, options);
        a.expected = a.time->ToString();
        break;
    default: // 'i' and anything unknown
        a.integer = std::strtoll(text, nullptr, 0);
        a.formatter.emplace(static_cast<int>(a.integer), options);
        if (!options) a.expected = std::to_string(static_cast<int>(a.integer));
        break;
    }
}

// The expansion as the template rules give it, from the arguments' own
// texts; empty when an exception is due, with its message in `error`.
std::optional<std::string> Expand(const char* format, const std::vector<std::string>& texts,
                                  const std::vector<std::optional<std::string>>& errors,
                                  std::string& error, std::size_t& written) {
    std::string out;
    const std::size_t length = std::strlen(format);
    for (std::size_t i = 0; i < length;) {
        if (format[i] != '%') {
            out += format[i++];
            continue;
        }
        if (i + 1 == length) break;
        const char x = format[i + 1];
        if (x >= '1' && x <= '9') {
            const std::size_t index = static_cast<std::size_t>(x - '1');
            if (index >= texts.size()) {
                error = format;
                written = out.size();
                return std::nullopt;
            }
            if (errors[index]) {
                error = *errors[index];
                written = out.size();
                return std::nullopt;
            }
            out += texts[index];
        } else if (x == '%') {
            out += '%';
        } else {
            out += '%';
            out += x;
        }
        i += 2;
    }
    written = out.size();
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> lines;
    for (std::size_t at = 0; at <= input.size();) {
        std::size_t end = input.find('\n', at);
        if (end == std::string::npos) end = input.size();
        lines.push_back(input.substr(at, end - at));
        at = end + 1;
    }
    const std::string format = lines[0];
    std::vector<Argument> arguments(lines.size() > 1 ? (lines.size() - 1 > 9 ? 9 : lines.size() - 1)
                                                     : 1);
    for (std::size_t i = 0; i < arguments.size() && i + 1 < lines.size(); ++i) {
        const std::string& line = lines[i + 1];
        Argument& a = arguments[i];
        a.kind = line.empty() ? 'i' : line[0];
        const std::size_t bar = line.find('|');
        a.value = line.substr(line.empty() ? 0 : 1,
                              bar == std::string::npos ? std::string::npos : bar - 1);
        if (bar != std::string::npos) {
            a.hasOptions = true;
            a.options = line.substr(bar + 1);
        }
    }

    std::vector<const PrintFormatter*> pointers;
    std::vector<std::string> texts;
    std::vector<std::optional<std::string>> errors;
    for (Argument& a : arguments) {
        Build(a);
        pointers.push_back(&*a.formatter);
        std::string text = "unchanged";
        try {
            a.formatter->PrintToString(text);
            FUZZ_CHECK(text.compare(0, 9, "unchanged") == 0);
            text.erase(0, 9);
            errors.emplace_back();
            if (a.expected) FUZZ_CHECK(text == *a.expected);
        } catch (const InvalidFormatStringException& e) {
            FUZZ_CHECK(text == "unchanged"); // left as it was
            FUZZ_CHECK(a.hasOptions &&
                       e.what() == a.options.substr(0, std::strlen(a.options.c_str())));
            FUZZ_CHECK(!a.expected); // no reference text for what may be refused
            errors.emplace_back(e.what());
        }
        texts.push_back(text);
    }

    std::string error;
    std::size_t written = 0;
    const std::optional<std::string> expected =
        Expand(format.c_str(), texts, errors, error, written);
    // A template of a few kilobytes repeating an argument of 10,000 digits
    // expands to megabytes, each placeholder formatted anew: a cost of the
    // output's size, not a fault. Such expansions are left to the reference.
    if (written > 256 * 1024) return 0;
    const int count = static_cast<int>(pointers.size());
    try {
        const std::string result =
            MessageFormatter::ASPrintArgs(format.c_str(), pointers.data(), count);
        FUZZ_CHECK(expected && result == *expected);
    } catch (const InvalidFormatStringException& e) {
        FUZZ_CHECK(!expected && error == e.what());
    }

    Tessera::Ref<Tessera::StringWriter> writer;
    Tessera::CreateStringWriter(writer);
    try {
        MessageFormatter::PrintArgs(writer.Get(), format.c_str(), pointers.data(), count);
        FUZZ_CHECK(expected && writer->GetString() == *expected);
    } catch (const InvalidFormatStringException& e) {
        FUZZ_CHECK(!expected && error == e.what());
    }
    return 0;
}
