// Message formatting: the template expansion and the format functions of the
// built-in argument kinds.

#include <tessera/exception.h>
#include <tessera/formatter.h>
#include <tessera/xml.h>

#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <typeinfo>

namespace Tessera {
namespace {

// Integers print into this much; floating point into kFloatBuffer, which
// holds "%g" and "%e" of any double and "%f" of any magnitude below 1e100.
// Larger results (wide fields, long precisions) go to the heap.
constexpr int kIntBuffer = 24;
constexpr int kFloatBuffer = 128;

// Widths and precisions above this are refused: no message needs them, and
// an unbounded one could make a single argument take any amount of memory.
constexpr int kMaxFieldSize = 9999;

const char kNull[] = "(null)";

void WriteAll(Writer* w, const char* data, std::size_t length) {
    while (length > static_cast<std::size_t>(INT_MAX)) {
        w->Write(data, INT_MAX);
        data += INT_MAX;
        length -= INT_MAX;
    }
    if (length != 0) {
        w->Write(data, static_cast<int>(length));
    }
}

void WriteNull(Writer* w) { w->Write(kNull, sizeof(kNull) - 1); }

// ---- integers without printf ----

const char kDigitPairs[] = "00010203040506070809"
                           "10111213141516171819"
                           "20212223242526272829"
                           "30313233343536373839"
                           "40414243444546474849"
                           "50515253545556575859"
                           "60616263646566676869"
                           "70717273747576777879"
                           "80818283848586878889"
                           "90919293949596979899";

// Writes the decimal digits of `v` so that they end at `end`; returns where
// they begin.
char* DecimalBefore(char* end, std::uint64_t v) noexcept {
    while (v >= 100) {
        const unsigned pair = static_cast<unsigned>(v % 100) * 2;
        v /= 100;
        *--end = kDigitPairs[pair + 1];
        *--end = kDigitPairs[pair];
    }
    if (v >= 10) {
        const unsigned pair = static_cast<unsigned>(v) * 2;
        *--end = kDigitPairs[pair + 1];
        *--end = kDigitPairs[pair];
    } else {
        *--end = static_cast<char>('0' + v);
    }
    return end;
}

void WriteUnsigned(Writer* w, std::uint64_t v) {
    char buffer[kIntBuffer];
    char* const end = buffer + sizeof(buffer);
    const char* begin = DecimalBefore(end, v);
    w->Write(begin, static_cast<int>(end - begin));
}

void WriteSigned(Writer* w, std::int64_t v) {
    char buffer[kIntBuffer];
    char* const end = buffer + sizeof(buffer);
    // The magnitude in unsigned arithmetic, so that the most negative value
    // does not overflow.
    const std::uint64_t magnitude =
        v < 0 ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
    char* begin = DecimalBefore(end, magnitude);
    if (v < 0) {
        *--begin = '-';
    }
    w->Write(begin, static_cast<int>(end - begin));
}

// ---- option strings ----

enum class ArgKind { Char, Int32, UInt32, Int64, UInt64, Pointer, Floating };

enum class Length { None, HH, H, L, LL, BigL, I32, Wide };

// One printf conversion with the literal text around it, checked against the
// argument it is for and rewritten in the C dialect for the value as it will
// be passed.
struct Conversion {
    const char* prefixEnd = nullptr; // literal text from the options' start
    const char* suffix = nullptr;    // literal text from here to the NUL
    bool present = false;
    enum class Pass { Int, UInt, LongLong, ULongLong, Double } pass = Pass::Int;
    char conversion[32] = {};
};

[[noreturn]] void RefuseOptions(const char* options) {
    throw InvalidFormatStringException(options);
}

bool IsFlag(char c) noexcept {
    return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0';
}

bool IsDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// Reads a run of digits; false when it exceeds kMaxFieldSize.
bool ReadNumber(const char*& p, int& value) noexcept {
    value = 0;
    while (IsDigit(*p)) {
        value = value * 10 + (*p - '0');
        if (value > kMaxFieldSize) {
            return false;
        }
        ++p;
    }
    return true;
}

// True when the literal text [p, end) or [p, NUL) holds "%" only as "%%".
bool IsLiteral(const char* p, const char* end) noexcept {
    while (p != end && *p != '\0') {
        if (*p == '%') {
            if (p + 1 == end || p[1] != '%') {
                return false;
            }
            ++p;
        }
        ++p;
    }
    return true;
}

char* AppendNumber(char* out, int value) noexcept {
    char digits[8];
    char* const end = digits + sizeof(digits);
    const char* begin = DecimalBefore(end, static_cast<std::uint64_t>(value));
    while (begin != end) {
        *out++ = *begin++;
    }
    return out;
}

// Parses and checks `options` for an argument of kind `kind`. Throws
// InvalidFormatStringException(options) for anything but at most one
// conversion that suits the argument.
void ParseOptions(const char* options, ArgKind kind, Conversion& c) {
    const char* p = options;
    while (*p != '\0' && !(p[0] == '%' && p[1] != '%')) {
        p += (p[0] == '%') ? 2 : 1;
    }
    c.prefixEnd = p;
    if (*p == '\0') {
        c.suffix = p; // literal text only, as printf would print it
        return;
    }
    ++p;

    bool flags[5] = {};
    static const char kFlags[] = "-+ #0";
    for (; IsFlag(*p); ++p) {
        flags[std::strchr(kFlags, *p) - kFlags] = true;
    }
    int width = 0;
    if (!ReadNumber(p, width)) {
        RefuseOptions(options);
    }
    bool hasPrecision = false;
    int precision = 0;
    if (*p == '.') {
        ++p;
        hasPrecision = true;
        if (!ReadNumber(p, precision)) {
            RefuseOptions(options);
        }
    }

    Length length = Length::None;
    switch (*p) {
    case 'h':
        length = p[1] == 'h' ? Length::HH : Length::H;
        p += p[1] == 'h' ? 2 : 1;
        break;
    case 'l':
        length = p[1] == 'l' ? Length::LL : Length::L;
        p += p[1] == 'l' ? 2 : 1;
        break;
    case 'L':
        length = Length::BigL;
        ++p;
        break;
    case 'q':
    case 'j':
    case 'z':
    case 't':
        length = Length::Wide;
        ++p;
        break;
    case 'I':
        if (p[1] == '6' && p[2] == '4') {
            length = Length::Wide;
            p += 3;
        } else if (p[1] == '3' && p[2] == '2') {
            length = Length::I32;
            p += 3;
        } else {
            length = Length::Wide; // pointer-sized
            ++p;
        }
        break;
    default:
        break;
    }

    char type = *p;
    if (type == '\0') {
        RefuseOptions(options);
    }
    ++p;
    c.suffix = p;
    if (!IsLiteral(p, nullptr)) {
        RefuseOptions(options); // a second conversion, or a lone "%"
    }

    const bool is64 = kind == ArgKind::Int64 || kind == ArgKind::UInt64 ||
                      kind == ArgKind::Pointer;
    const char* lengthText = "";
    if (kind == ArgKind::Floating) {
        if (std::strchr("fFeEgGaA", type) == nullptr ||
            (length != Length::None && length != Length::L && length != Length::BigL)) {
            RefuseOptions(options);
        }
        c.pass = Conversion::Pass::Double; // l and L dropped: the value is a double
    } else if (type == 'c') {
        // A character: the value narrowed to char, a width and "-" only.
        if (length == Length::BigL || hasPrecision || flags[1] || flags[2] || flags[3] ||
            flags[4]) {
            RefuseOptions(options);
        }
        c.pass = Conversion::Pass::Int;
    } else if (type == 'p' && kind == ArgKind::Pointer) {
        // As the Windows runtime prints pointers on every platform.
        if (length != Length::None) {
            RefuseOptions(options);
        }
        type = 'X';
        if (!hasPrecision) {
            hasPrecision = true;
            precision = 16;
        }
        c.pass = Conversion::Pass::ULongLong;
        lengthText = "ll";
    } else if (type != '\0' && std::strchr("diouxX", type) != nullptr) {
        const bool isSigned = type == 'd' || type == 'i';
        if (length == Length::BigL || (isSigned && flags[3])) {
            RefuseOptions(options);
        }
        if (length == Length::HH || length == Length::H) {
            lengthText = length == Length::HH ? "hh" : "h";
            c.pass = isSigned ? Conversion::Pass::Int : Conversion::Pass::UInt;
        } else if (length == Length::I32 || !is64) {
            c.pass = isSigned ? Conversion::Pass::Int : Conversion::Pass::UInt;
        } else {
            lengthText = "ll";
            c.pass = isSigned ? Conversion::Pass::LongLong : Conversion::Pass::ULongLong;
        }
    } else {
        RefuseOptions(options);
    }

    char* out = c.conversion;
    *out++ = '%';
    for (int i = 0; i < 5; ++i) {
        if (flags[i]) {
            *out++ = kFlags[i];
        }
    }
    if (width != 0) {
        out = AppendNumber(out, width);
    }
    if (hasPrecision) {
        *out++ = '.';
        out = AppendNumber(out, precision);
    }
    while (*lengthText != '\0') {
        *out++ = *lengthText++;
    }
    *out++ = type;
    *out = '\0';
    c.present = true;
}

// Writes literal option text, "%%" as "%".
void WriteLiteral(Writer* w, const char* p, const char* end) {
    while (p != end && *p != '\0') {
        const char* run = p;
        while (p != end && *p != '\0' && *p != '%') {
            ++p;
        }
        WriteAll(w, run, static_cast<std::size_t>(p - run));
        if (p != end && *p == '%') {
            w->Write(p, 1);
            p += 2;
        }
    }
}

// snprintf of one checked conversion into a buffer of Size bytes, or into
// the heap when the result is larger.
template <int Size, class T>
void Snprintf(Writer* w, const char* options, const char* conversion, T value) {
    char buffer[Size];
    const int n = std::snprintf(buffer, sizeof(buffer), conversion, value);
    if (n < 0) {
        RefuseOptions(options);
    }
    if (n < Size) {
        w->Write(buffer, n);
        return;
    }
    std::unique_ptr<char[]> heap(new char[static_cast<std::size_t>(n) + 1]);
    if (std::snprintf(heap.get(), static_cast<std::size_t>(n) + 1, conversion, value) != n) {
        RefuseOptions(options);
    }
    w->Write(heap.get(), n);
}

// Prints an integer (held as its 64 bits, sign- or zero-extended) under
// `options`.
void FormatIntegerOptions(Writer* w, std::uint64_t bits, ArgKind kind, const char* options) {
    Conversion c;
    ParseOptions(options, kind, c);
    WriteLiteral(w, options, c.prefixEnd);
    if (c.present) {
        switch (c.pass) {
        case Conversion::Pass::Int:
            Snprintf<kIntBuffer>(w, options, c.conversion,
                                 static_cast<int>(static_cast<std::int32_t>(
                                     static_cast<std::uint32_t>(bits))));
            break;
        case Conversion::Pass::UInt:
            Snprintf<kIntBuffer>(w, options, c.conversion, static_cast<unsigned>(bits));
            break;
        case Conversion::Pass::LongLong:
            Snprintf<kIntBuffer>(w, options, c.conversion, static_cast<long long>(bits));
            break;
        case Conversion::Pass::ULongLong:
            Snprintf<kIntBuffer>(w, options, c.conversion, static_cast<unsigned long long>(bits));
            break;
        case Conversion::Pass::Double:
            break; // not for integers
        }
    }
    WriteLiteral(w, c.suffix, nullptr);
}

void FormatFloatingOptions(Writer* w, double value, const char* options) {
    Conversion c;
    ParseOptions(options, ArgKind::Floating, c);
    WriteLiteral(w, options, c.prefixEnd);
    if (c.present) {
        Snprintf<kFloatBuffer>(w, options, c.conversion, value);
    }
    WriteLiteral(w, c.suffix, nullptr);
}

// "%g" of the usual double in integer arithmetic: the value scaled by an
// exact power of ten to six digits before the point and rounded. The scaling
// rounds once, by far less than the 1e-6 margin kept around the rounding
// midpoint, so the digits are those of the exact value. Returns the length
// written to `out` (at most 13 bytes), or 0 for the values it leaves to the
// exact conversion: zero, inf and nan, magnitudes outside 1e-17..1e26,
// near-midpoints and results next to a power of ten.
int GeneralSixDigits(double value, char* out) noexcept {
    static const double kPow10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                    1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                    1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof(bits));
    const int biased = static_cast<int>((bits >> 52) & 0x7ff);
    if (biased == 0 || biased == 0x7ff) {
        return 0;
    }
    const double magnitude = value < 0 ? -value : value;
    // magnitude lies in [2^(e2 - 1), 2^e2); its decimal exponent is this or
    // one more (log10(2) = 0.30102999566...).
    const int e2 = biased - 1022;
    int exponent = ((e2 - 1) * 78913) >> 18;
    if (exponent < -17 || exponent > 26) {
        return 0;
    }
    const auto scale = [magnitude](int x) noexcept {
        const int k = 5 - x;
        return k >= 0 ? magnitude * kPow10[k] : magnitude / kPow10[-k];
    };
    double scaled = scale(exponent);
    if (scaled >= 1e6) {
        if (++exponent > 26) {
            return 0;
        }
        scaled = scale(exponent);
    }
    if (scaled < 1e5 || scaled >= 999999.4) {
        return 0;
    }
    const double fraction = scaled - static_cast<double>(static_cast<std::uint32_t>(scaled));
    if (fraction > 0.5 - 1e-6 && fraction < 0.5 + 1e-6) {
        return 0;
    }
    const auto rounded = static_cast<std::uint32_t>(scaled + 0.5);

    char digits[6];
    DecimalBefore(digits + 6, rounded);
    int count = 6;
    while (digits[count - 1] == '0') {
        --count;
    }
    char* p = out;
    if (value < 0) {
        *p++ = '-';
    }
    if (exponent < -4 || exponent >= 6) {
        *p++ = digits[0];
        if (count > 1) {
            *p++ = '.';
            for (int i = 1; i < count; ++i) {
                *p++ = digits[i];
            }
        }
        *p++ = 'e';
        *p++ = exponent < 0 ? '-' : '+';
        const int e = exponent < 0 ? -exponent : exponent;
        *p++ = static_cast<char>('0' + e / 10);
        *p++ = static_cast<char>('0' + e % 10);
    } else if (exponent >= 0) {
        for (int i = 0; i <= exponent; ++i) {
            *p++ = i < count ? digits[i] : '0';
        }
        if (count > exponent + 1) {
            *p++ = '.';
            for (int i = exponent + 1; i < count; ++i) {
                *p++ = digits[i];
            }
        }
    } else {
        *p++ = '0';
        *p++ = '.';
        for (int i = -1; i > exponent; --i) {
            *p++ = '0';
        }
        for (int i = 0; i < count; ++i) {
            *p++ = digits[i];
        }
    }
    return static_cast<int>(p - out);
}

// The defaults "%f" and "%g" without the C library: to_chars with a precision
// prints exactly as printf does in the C locale.
void FormatFloatingDefault(Writer* w, double value, std::chars_format format,
                           const char* fallback) {
    char buffer[kFloatBuffer];
    const std::to_chars_result r =
        std::to_chars(buffer, buffer + sizeof(buffer), value, format, 6);
    if (r.ec == std::errc()) {
        w->Write(buffer, static_cast<int>(r.ptr - buffer));
    } else {
        Snprintf<kFloatBuffer>(w, fallback, fallback, value);
    }
}

// Appends to a string the caller owns. It lives on the caller's stack and is
// never counted: a format function must not keep a reference to its writer.
class AppendWriter final : public ObjectImpl, public Writer {
public:
    explicit AppendWriter(std::string& out) noexcept : _out(out) {}
    void Write(const char* data, int length) override {
        _out.append(data, static_cast<std::size_t>(length));
    }
    void Flush() override {}

private:
    std::string& _out;
};

// The expansion loop, shared by Print (onto any writer) and ASPrint (into a
// string, without a virtual call per literal run). `end` is the template's
// terminating NUL, which is never passed.
template <class Sink>
void Expand(Sink& sink, const char* format, const char* end, const PrintFormatter* const* args,
            int count) {
    const char* p = format;
    while (p != end) {
        const char* percent =
            static_cast<const char*>(std::memchr(p, '%', static_cast<std::size_t>(end - p)));
        if (percent == nullptr) {
            sink.Literal(p, static_cast<std::size_t>(end - p));
            return;
        }
        if (percent != p) {
            sink.Literal(p, static_cast<std::size_t>(percent - p));
        }
        const char x = percent[1];
        if (x >= '1' && x <= '9') {
            const int index = x - '1';
            if (index >= count) {
                throw InvalidFormatStringException(format);
            }
            sink.Argument(*args[index]);
        } else if (x == '%') {
            sink.Literal(percent, 1);
        } else if (x == '\0') {
            return; // a "%" that ends the template prints nothing
        } else {
            sink.Literal(percent, 2);
        }
        p = percent + 2;
    }
}

struct WriterSink {
    Writer* w;
    void Literal(const char* data, std::size_t length) { WriteAll(w, data, length); }
    void Argument(const PrintFormatter& arg) { arg.Print(w); }
};

struct StringSink {
    explicit StringSink(std::string& text) noexcept : out(text), writer(text) {}
    std::string& out;
    AppendWriter writer;
    void Literal(const char* data, std::size_t length) { out.append(data, length); }
    void Argument(const PrintFormatter& arg) { arg.Print(&writer); }
};

} // namespace

// ---- PrintFormatter ----

void PrintFormatter::PrintToString(std::string& out) const {
    const std::size_t size = out.size();
    AppendWriter writer(out);
    try {
        Print(&writer);
    } catch (...) {
        out.resize(size);
        throw;
    }
}

void PrintFormatter::FormatBoolean(Writer* w, const FormatValue& value, const char*) {
    if (value._int32 != 0) {
        w->Write("true", 4);
    } else {
        w->Write("false", 5);
    }
}

void PrintFormatter::FormatChar(Writer* w, const FormatValue& value, const char* options) {
    if (options == nullptr) {
        const char c = static_cast<char>(value._int32);
        w->Write(&c, 1);
        return;
    }
    FormatIntegerOptions(w, static_cast<std::uint64_t>(static_cast<std::int64_t>(value._int32)),
                         ArgKind::Char, options);
}

void PrintFormatter::FormatInt(Writer* w, const FormatValue& value, const char* options) {
    if (options == nullptr) {
        WriteSigned(w, value._int32);
        return;
    }
    FormatIntegerOptions(w, static_cast<std::uint64_t>(static_cast<std::int64_t>(value._int32)),
                         ArgKind::Int32, options);
}

void PrintFormatter::FormatUInt(Writer* w, const FormatValue& value, const char* options) {
    if (options == nullptr) {
        WriteUnsigned(w, value._uint32);
        return;
    }
    FormatIntegerOptions(w, value._uint32, ArgKind::UInt32, options);
}

void PrintFormatter::FormatLong(Writer* w, const FormatValue& value, const char* options) {
    if (options == nullptr) {
        WriteSigned(w, value._int64);
        return;
    }
    FormatIntegerOptions(w, static_cast<std::uint64_t>(value._int64), ArgKind::Int64, options);
}

void PrintFormatter::FormatULong(Writer* w, const FormatValue& value, const char* options) {
    if (options == nullptr) {
        WriteUnsigned(w, value._uint64);
        return;
    }
    FormatIntegerOptions(w, value._uint64, ArgKind::UInt64, options);
}

void PrintFormatter::FormatFloat(Writer* w, const FormatValue& value, const char* options) {
    if (options == nullptr) {
        FormatFloatingDefault(w, value._double, std::chars_format::fixed, "%f");
        return;
    }
    FormatFloatingOptions(w, value._double, options);
}

void PrintFormatter::FormatDouble(Writer* w, const FormatValue& value, const char* options) {
    if (options == nullptr) {
        char buffer[16];
        const int length = GeneralSixDigits(value._double, buffer);
        if (length != 0) {
            w->Write(buffer, length);
        } else {
            FormatFloatingDefault(w, value._double, std::chars_format::general, "%g");
        }
        return;
    }
    FormatFloatingOptions(w, value._double, options);
}

void PrintFormatter::FormatPtr(Writer* w, const FormatValue& value, const char* options) {
    const std::uint64_t bits = reinterpret_cast<std::uintptr_t>(value._pointer);
    if (options == nullptr) {
        static const char kHex[] = "0123456789abcdef";
        char buffer[16];
        for (int i = 15; i >= 0; --i) {
            buffer[i] = kHex[(bits >> (4 * (15 - i))) & 0xf];
        }
        w->Write(buffer, 16);
        return;
    }
    FormatIntegerOptions(w, bits, ArgKind::Pointer, options);
}

void PrintFormatter::FormatString(Writer* w, const FormatValue& value, const char*) {
    if (value._string == nullptr) {
        WriteNull(w);
        return;
    }
    WriteAll(w, value._string, std::strlen(value._string));
}

void PrintFormatter::FormatSTLString(Writer* w, const FormatValue& value, const char*) {
    if (value._stlString == nullptr) {
        WriteNull(w);
        return;
    }
    WriteAll(w, value._stlString->data(), value._stlString->size());
}

void PrintFormatter::FormatObject(Writer* w, const FormatValue& value, const char*) {
    if (value._object == nullptr) {
        WriteNull(w);
        return;
    }
    // ToString is not const in the interface, but describing an object does
    // not change it.
    const std::string text = const_cast<Object*>(value._object)->ToString();
    WriteAll(w, text.data(), text.size());
}

namespace {

void WriteExceptionHead(Writer* w, const std::exception& e) {
    const char* name = typeid(e).name();
    WriteAll(w, name, std::strlen(name));
    w->Write("(", 1);
    const char* what = e.what();
    if (what != nullptr) {
        WriteAll(w, what, std::strlen(what));
    }
    w->Write(")", 1);
}

} // namespace

void PrintFormatter::FormatException(Writer* w, const FormatValue& value, const char*) {
    if (value._exception == nullptr) {
        WriteNull(w);
        return;
    }
    WriteExceptionHead(w, *value._exception);
}

void PrintFormatter::FormatThrowable(Writer* w, const FormatValue& value, const char*) {
    if (value._throwable == nullptr) {
        WriteNull(w);
        return;
    }
    WriteExceptionHead(w, *value._throwable);
    // One frame a line, each line after a newline; no newline at the end.
    std::string where = value._throwable->Where();
    while (!where.empty() && where.back() == '\n') {
        where.pop_back();
    }
    if (!where.empty()) {
        w->Write("\n", 1);
        WriteAll(w, where.data(), where.size());
    }
}

void PrintFormatter::FormatXmlNode(Writer* w, const FormatValue& value, const char*) {
    if (value._xmlNode == nullptr) {
        WriteNull(w);
        return;
    }
    const std::string text = value._xmlNode->ToString();
    WriteAll(w, text.data(), text.size());
}

void PrintFormatter::FormatDateTime(Writer* w, const FormatValue& value, const char*) {
    if (value._dateTime == nullptr) {
        WriteNull(w);
        return;
    }
    const std::string text = value._dateTime->ToString();
    WriteAll(w, text.data(), text.size());
}

void DatePrintFormatter::FormatDate(Writer* w, const FormatValue& value, const char*) {
    if (value._dateTime == nullptr) {
        WriteNull(w);
        return;
    }
    char buffer[11];
    value._dateTime->ToShortStringDate(buffer, sizeof(buffer));
    w->Write(buffer, static_cast<int>(std::strlen(buffer)));
}

void DatePrintFormatter::FormatLongDate(Writer* w, const FormatValue& value, const char*) {
    if (value._dateTime == nullptr) {
        WriteNull(w);
        return;
    }
    const std::string text = value._dateTime->ToShortString();
    WriteAll(w, text.data(), text.size());
}

// ---- MessageFormatter ----

void MessageFormatter::PrintArgs(Writer* w, const char* format, const PrintFormatter* const* args,
                                 int count) {
    if (format == nullptr) {
        return;
    }
    WriterSink sink{w};
    Expand(sink, format, format + std::strlen(format), args, count);
}

std::string MessageFormatter::ASPrintArgs(const char* format, const PrintFormatter* const* args,
                                          int count) {
    std::string out;
    if (format == nullptr) {
        return out;
    }
    // One allocation for the usual message: the template and a short text
    // per argument.
    const std::size_t length = std::strlen(format);
    out.reserve(length + 16 * static_cast<std::size_t>(count));
    StringSink sink(out);
    Expand(sink, format, format + length, args, count);
    return out;
}

} // namespace Tessera
