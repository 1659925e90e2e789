// Query results as Prometheus text and as JSON.

#include <tessera/perfCounter/exposition.h>

#include <cstdint>
#include <cstdio>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Tessera {
namespace PerfCounter {
namespace {

bool IsUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool IsLower(char c) { return c >= 'a' && c <= 'z'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool EndsWith(const std::string& text, const char* suffix) {
    const std::size_t n = std::char_traits<char>::length(suffix);
    return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

void AppendInteger(std::int64_t value, std::string& out) {
    char digits[24];
    char* end = digits + sizeof(digits);
    char* p = end;
    // In unsigned arithmetic, so that the most negative value has a magnitude.
    std::uint64_t magnitude =
        value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
    do {
        *--p = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0) *--p = '-';
    out.append(p, static_cast<std::size_t>(end - p));
}

// Help text escapes '\' and newlines; label values also '"'.
void AppendEscaped(const std::string& text, bool quote, std::string& out) {
    bool plain = true;
    for (char c : text) plain = plain && c != '\\' && c != '\n' && (c != '"' || !quote);
    if (plain) {
        out += text;
        return;
    }
    for (char c : text) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '"' && quote) {
            out += "\\\"";
        } else {
            out += c;
        }
    }
}

void AppendJsonString(const std::string& text, std::string& out) {
    out += '"';
    for (char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", u);
            out += escape;
        } else {
            out += c;
        }
    }
    out += '"';
}

constexpr std::size_t kNone = ~std::size_t(0);

// The values of one counter: [first, last) of the values given, and the next
// counter with the same metric name.
struct Family {
    std::string metric;
    std::size_t first;
    std::size_t last;
    std::size_t next;
    bool chained = false; // written with an earlier one
};

} // namespace

std::string SanitizeMetricName(const std::string& name, const std::string& prefix) {
    std::string out = prefix;
    out.reserve(prefix.size() + name.size() + 8);
    bool pendingSeparator = !prefix.empty();
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        if (IsUpper(c)) {
            // A new word begins after a lower-case letter or a digit, and at
            // the last capital of a run followed by lower case ("HTTPServer").
            const char previous = i > 0 ? name[i - 1] : '\0';
            const char next = i + 1 < name.size() ? name[i + 1] : '\0';
            if (IsLower(previous) || IsDigit(previous) || (IsUpper(previous) && IsLower(next))) {
                pendingSeparator = true;
            }
        }
        if (IsUpper(c) || IsLower(c) || IsDigit(c)) {
            if (pendingSeparator && !out.empty()) out += '_';
            pendingSeparator = false;
            out += IsUpper(c) ? static_cast<char>(c - 'A' + 'a') : c;
        } else {
            pendingSeparator = true;
        }
    }
    if (out.empty() || IsDigit(out[0])) out.insert(0, "_");
    static const char* const kReserved[] = {"_total", "_count", "_sum", "_bucket"};
    for (const char* suffix : kReserved) {
        if (EndsWith(out, suffix)) {
            out += "_value";
            break;
        }
    }
    return out;
}

void WritePrometheusText(const CounterValues& values, std::string& out, const std::string& prefix) {
    std::vector<Family> families;
    std::size_t size = out.size();
    for (std::size_t i = 0; i < values.size();) {
        std::size_t j = i + 1;
        while (j < values.size() && values[j].name == values[i].name) ++j;
        families.push_back({SanitizeMetricName(values[i].name, prefix), i, j, kNone});
        Family& f = families.back();
        size += 2 * f.metric.size() + values[i].name.size() + 24;
        for (std::size_t v = i; v < j; ++v) {
            size += f.metric.size() + values[v].statistic.size() + 36;
        }
        i = j;
    }
    // Counters that come out under one metric name are chained to the first
    // of them, and written with it.
    std::unordered_map<std::string_view, std::size_t> first;
    first.reserve(families.size());
    std::vector<std::size_t> last(families.size(), kNone);
    for (std::size_t f = 0; f < families.size(); ++f) {
        const auto found = first.emplace(families[f].metric, f);
        if (found.second) {
            last[f] = f;
        } else {
            const std::size_t head = found.first->second;
            families[last[head]].next = f;
            last[head] = f;
            families[f].chained = true;
        }
    }
    out.reserve(size);
    for (std::size_t f = 0; f < families.size(); ++f) {
        if (families[f].chained) continue;
        const bool shared = families[f].next != kNone;
        const std::string& metric = families[f].metric;
        out += "# HELP ";
        out += metric;
        out += ' ';
        for (std::size_t k = f; k != kNone; k = families[k].next) {
            if (k != f) out += ", ";
            AppendEscaped(values[families[k].first].name, false, out);
        }
        out += "\n# TYPE ";
        out += metric;
        out += " gauge\n";
        for (std::size_t k = f; k != kNone; k = families[k].next) {
            for (std::size_t v = families[k].first; v < families[k].last; ++v) {
                out += metric;
                if (shared) {
                    out += "{counter=\"";
                    AppendEscaped(values[v].name, true, out);
                    out += "\",statistic=\"";
                } else {
                    out += "{statistic=\"";
                }
                AppendEscaped(values[v].statistic, true, out);
                out += "\"} ";
                AppendInteger(values[v].value, out);
                out += '\n';
            }
        }
    }
}

void WriteJson(const CounterValues& values, std::string& out) {
    out += '{';
    for (std::size_t i = 0; i < values.size();) {
        if (i > 0) out += ',';
        AppendJsonString(values[i].name, out);
        out += ":{";
        std::size_t j = i;
        for (; j < values.size() && values[j].name == values[i].name; ++j) {
            if (j > i) out += ',';
            AppendJsonString(values[j].statistic, out);
            out += ':';
            AppendInteger(values[j].value, out);
        }
        out += '}';
        i = j;
    }
    out += '}';
}

} // namespace PerfCounter
} // namespace Tessera
