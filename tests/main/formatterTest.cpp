#include <tessera/exception.h>
#include <tessera/formatter.h>
#include <tessera/writer.h>
#include <tessera/xml.h>

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

using namespace Tessera;
using MF = MessageFormatter;

namespace {

// Keeps every Write as a separate piece.
class RecordingWriter final : public ObjectImpl, public Writer {
public:
    void Write(const char* data, int length) override { pieces.emplace_back(data, length); }
    void Flush() override {}
    std::vector<std::string> pieces;
};

template <class F>
std::string FormatErrorOf(F print) {
    try {
        print();
    } catch (const InvalidFormatStringException& e) {
        return e.what();
    } catch (const std::exception& e) {
        return std::string("wrong exception: ") + typeid(e).name();
    }
    return "no exception";
}

std::string One(const PrintFormatter& arg) { return MF::ASPrint("%1", arg); }

std::string Snprintf(const char* format, ...) {
    char buffer[512];
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    return std::string(buffer, n < 0 ? 0 : n);
}

class Described final : public ObjectImpl {
public:
    std::string ToString() override { return "described"; }
};

} // namespace

TEST(Writer, CountingAndStringWriters) {
    Ref<CountingWriter> counting(new CountingWriter);
    EXPECT_EQ(counting->GetCount(), 0u);
    counting->Write("abc", 3);
    counting->Write(nullptr, 0);
    counting->Write("de", 2);
    EXPECT_EQ(counting->GetCount(), 5u);

    Ref<StringWriter> text;
    CreateStringWriter(text, 64);
    text->Write("a\0b", 3);
    text->Write("cd", 2);
    text->Flush();
    EXPECT_EQ(text->GetString(), std::string("a\0bcd", 5));
    EXPECT_EQ(text->TakeString(), std::string("a\0bcd", 5));
    EXPECT_EQ(text->GetString(), "");
    text->Write("next", 4);
    text->Close();
    EXPECT_EQ(text->GetString(), "next");
}

TEST(MessageFormatter, TemplateRules) {
    EXPECT_EQ(MF::ASPrint("%1%%%2", 5, "x"), "5%x");
    EXPECT_EQ(MF::ASPrint("100%%", 1), "100%");
    EXPECT_EQ(MF::ASPrint("%a%1", 7), "%a7");
    EXPECT_EQ(MF::ASPrint("%0-%1", 7), "%0-7");
    EXPECT_EQ(MF::ASPrint("%10", 7), "70");
    EXPECT_EQ(MF::ASPrint("%2%1%2", "a", "b"), "bab");
    EXPECT_EQ(MF::ASPrint("only %2", "unused", "used"), "only used");
    EXPECT_EQ(MF::ASPrint("", 1), "");
    EXPECT_EQ(MF::ASPrint(nullptr, 1), "");
    EXPECT_EQ(MF::ASPrint("no placeholders", 1), "no placeholders");
    EXPECT_EQ(MF::ASPrint("%1 %2 %3 %4 %5 %6 %7 %8 %9", 1, 2, 3, 4, 5, 6, 7, 8, 9),
              "1 2 3 4 5 6 7 8 9");
    EXPECT_EQ(MF::ASPrint("%9%5%1", 1, 2, 3, 4, 5, 6, 7, 8, 9), "951");

    // A lone "%" ends the template; nothing after its NUL is read.
    const char lone[] = "ab%\0%1 past the end";
    EXPECT_EQ(MF::ASPrint(lone, 1), "ab");
    Ref<StringWriter> out;
    CreateStringWriter(out);
    MF::Print(out.Get(), lone, 1);
    EXPECT_EQ(out->GetString(), "ab");

    EXPECT_EQ(FormatErrorOf([] { MF::ASPrint("%2", 1); }), "%2");
    EXPECT_EQ(FormatErrorOf([] { MF::ASPrint("a %1 b %9 c", 1, 2, 3, 4, 5, 6, 7, 8); }),
              "a %1 b %9 c");
}

TEST(MessageFormatter, PrintWritesOneRunAtATimeAndMatchesASPrint) {
    Ref<RecordingWriter> w(new RecordingWriter);
    MF::Print(w.Get(), "ab%1cd%%ef%qg%", 5);
    EXPECT_EQ(w->pieces, (std::vector<std::string>{"ab", "5", "cd", "%", "ef", "%q", "g"}));

    const char* templates[] = {"", "%1", "x%1y%2z%3", "%3%3%3", "%%%1%%", "%z%0%1%", "%1%2%30"};
    std::string name = "name";
    for (const char* t : templates) {
        Ref<StringWriter> out;
        CreateStringWriter(out);
        MF::Print(out.Get(), t, -12, name, PrintFormatter(255u, "[%#06x]"));
        EXPECT_EQ(out->GetString(), MF::ASPrint(t, -12, name, PrintFormatter(255u, "[%#06x]")))
            << t;
    }
}

TEST(MessageFormatter, TextBeforeAFailureStaysWritten) {
    Ref<StringWriter> out;
    CreateStringWriter(out);
    EXPECT_EQ(FormatErrorOf([&] { MF::Print(out.Get(), "before %1 %2 after", 1); }),
              "before %1 %2 after");
    EXPECT_EQ(out->GetString(), "before 1 ");

    Ref<CountingWriter> counting(new CountingWriter);
    EXPECT_EQ(FormatErrorOf(
                  [&] { MF::Print(counting.Get(), "ab %1 %2", "cd", PrintFormatter(5, "<%s>")); }),
              "<%s>");
    EXPECT_EQ(counting->GetCount(), 6u); // "ab cd "

    // PrintToString appends, and leaves the string alone when printing fails.
    std::string text = "x=";
    PrintFormatter(42).PrintToString(text);
    EXPECT_EQ(text, "x=42");
    EXPECT_THROW(PrintFormatter(42, "ab%n").PrintToString(text), InvalidFormatStringException);
    EXPECT_EQ(text, "x=42");
}

TEST(PrintFormatter, NumbersByDefault) {
    EXPECT_EQ(MF::ASPrint("%1 %2", true, false), "true false");
    EXPECT_EQ(One(PrintFormatter(true, "%d")), "true");
    EXPECT_EQ(One('A'), "A");
    EXPECT_EQ(One('\0'), std::string(1, '\0'));
    EXPECT_EQ(One(static_cast<signed char>('z')), "z");
    EXPECT_EQ(MF::ASPrint("%1 %2 %3", INT_MIN, INT_MAX, 0),
              std::to_string(INT_MIN) + " " + std::to_string(INT_MAX) + " 0");
    EXPECT_EQ(One(UINT_MAX), std::to_string(UINT_MAX));
    EXPECT_EQ(MF::ASPrint("%1 %2", LONG_MIN, ULONG_MAX),
              std::to_string(LONG_MIN) + " " + std::to_string(ULONG_MAX));
    EXPECT_EQ(MF::ASPrint("%1 %2", LLONG_MIN, ULLONG_MAX),
              std::to_string(LLONG_MIN) + " " + std::to_string(ULLONG_MAX));
    EXPECT_EQ(One(static_cast<short>(-7)), "-7");
    EXPECT_EQ(One(static_cast<unsigned char>(200)), "200");
    EXPECT_EQ(One(reinterpret_cast<const void*>(~std::uintptr_t(0) - 0x10)), "ffffffffffffffef");
    EXPECT_EQ(One(static_cast<const void*>(nullptr)), "0000000000000000");

    // The hand-written conversions against the C library's.
    std::mt19937_64 random(12345);
    for (int i = 0; i < 2000; ++i) {
        const std::uint64_t bits = random() >> (random() % 64);
        const auto i32 = static_cast<std::int32_t>(bits);
        const auto i64 = static_cast<long long>(bits * ((i % 2) ? 1 : ~0ull));
        ASSERT_EQ(One(i32), Snprintf("%d", i32));
        ASSERT_EQ(One(static_cast<std::uint32_t>(bits)),
                  Snprintf("%u", static_cast<unsigned>(bits)));
        ASSERT_EQ(One(i64), Snprintf("%lld", i64));
        ASSERT_EQ(One(static_cast<unsigned long long>(bits)),
                  Snprintf("%llu", static_cast<unsigned long long>(bits)));
        const double d = std::ldexp(static_cast<double>(bits % 1000000007) / 1000000007.0,
                                    static_cast<int>(random() % 400) - 200) *
                         ((i % 3) ? 1 : -1);
        ASSERT_EQ(One(d), Snprintf("%g", d));
        const float f = static_cast<float>(d);
        ASSERT_EQ(One(f), Snprintf("%f", static_cast<double>(f)));
    }
    // Short decimals, exact halves and the edges of the "%g" forms.
    for (int i = 0; i < 2000; ++i) {
        const double d = static_cast<double>(random() % 100000000) /
                         std::pow(10.0, static_cast<int>(random() % 40) - 20);
        ASSERT_EQ(One(d), Snprintf("%g", d));
    }
    const double edges[] = {1234565.0,
                            1234575.0,
                            999999.5,
                            999999.49,
                            0.0001,
                            0.00001,
                            9.999995e-5,
                            123456.0,
                            1234567.0,
                            100000.0,
                            1e6,
                            2.5,
                            0.5,
                            1e-17,
                            1e26,
                            1e27,
                            1e22,
                            5e-324,
                            1.7976931348623157e308,
                            -1e-300,
                            0.0};
    for (const double d : edges) EXPECT_EQ(One(d), Snprintf("%g", d));
    EXPECT_EQ(One(1e300 * 1e300), "inf");
    EXPECT_EQ(One(0.1), "0.1");
    EXPECT_EQ(One(123456789.0), "1.23457e+08");
    EXPECT_EQ(One(-0.0), "-0");
}

TEST(PrintFormatter, OptionStringsInBothDialects) {
    // The Windows length modifiers mean the same here as there.
    EXPECT_EQ(One(PrintFormatter(-5LL, "%I64d")), "-5");
    EXPECT_EQ(One(PrintFormatter(1ULL << 63, "%I64u")), "9223372036854775808");
    EXPECT_EQ(One(PrintFormatter(0xabcdef0123LL, "%016I64x")), "000000abcdef0123");
    EXPECT_EQ(One(PrintFormatter(0xabcdef0123ULL, "%I64X")), "ABCDEF0123");
    EXPECT_EQ(One(PrintFormatter(0x100000005LL, "%I32d")), "5");
    EXPECT_EQ(One(PrintFormatter((const void*)0xabcdef012, "%Ix")), "abcdef012");
    EXPECT_EQ(One(PrintFormatter(-1, "%I64d")), "-1");
    EXPECT_EQ(One(PrintFormatter(-1, "%I64u")), "4294967295"); // an int keeps its width
    EXPECT_EQ(One(PrintFormatter(-1LL, "%lld")), "-1");
    EXPECT_EQ(One(PrintFormatter(-1, "%lx")), "ffffffff");
    EXPECT_EQ(One(PrintFormatter(-1LL, "%x")), "ffffffffffffffff");
    EXPECT_EQ(One(PrintFormatter(LONG_MAX, "%ld")), std::to_string(LONG_MAX));
    EXPECT_EQ(One(PrintFormatter(300, "%hhd")), "44");
    EXPECT_EQ(One(PrintFormatter(70000u, "%hu")), "4464");
    EXPECT_EQ(One(PrintFormatter(~0ull, "%zu")), "18446744073709551615");
    EXPECT_EQ(One(PrintFormatter((const void*)0xabc, "%p")), "0000000000000ABC");

    // Flags, widths, precisions and literal text around the conversion.
    EXPECT_EQ(One(PrintFormatter(42, "%08x")), "0000002a");
    EXPECT_EQ(One(PrintFormatter(42, "[%-5d]")), "[42   ]");
    EXPECT_EQ(One(PrintFormatter(42, "%+d%%")), "+42%");
    EXPECT_EQ(One(PrintFormatter(42, "%--++5d")), "+42  ");
    EXPECT_EQ(One(PrintFormatter(42, "no conversion")), "no conversion");
    EXPECT_EQ(One(PrintFormatter('A', "%d")), "65");
    EXPECT_EQ(One(PrintFormatter('A', "%-3c|")), "A  |");
    EXPECT_EQ(One(PrintFormatter(65, "%c")), "A");
    EXPECT_EQ(One(PrintFormatter(3.14159, "%.2f")), "3.14");
    EXPECT_EQ(One(PrintFormatter(3.14159, "%Lf")), "3.141590");
    EXPECT_EQ(One(PrintFormatter(2.5f, "%e")), "2.500000e+00");
    EXPECT_EQ(One(PrintFormatter(1e10, "%G")), "1E+10");
    EXPECT_EQ(One(PrintFormatter(3.0, "%a")), "0x1.8p+1");
    EXPECT_EQ(One(PrintFormatter(-0.75f, "%A")), "-0X1.8P-1");
    EXPECT_EQ(One(PrintFormatter(1.0, "[%12.2a]")), "[   0x1.00p+0]");

    // Results larger than the fixed buffers.
    const std::string wide = One(PrintFormatter(42, "%100d"));
    EXPECT_EQ(wide, std::string(98, ' ') + "42");
    EXPECT_EQ(One(PrintFormatter(1e80, "%.60f")), Snprintf("%.60f", 1e80));
    EXPECT_EQ(One(PrintFormatter(-1.5e300, "%f")), Snprintf("%f", -1.5e300));
    EXPECT_EQ(One(PrintFormatter(1.0, "%.9999f")).size(), 10001u);

    // Options that are not one conversion fitting the argument are refused
    // with the option string as the message, before anything is written.
    const std::pair<PrintFormatter, const char*> refused[] = {
        {PrintFormatter(1, "%s"), "%s"},
        {PrintFormatter(1, "%n"), "%n"},
        {PrintFormatter(1, "%f"), "%f"},
        {PrintFormatter(1.0, "%d"), "%d"},
        {PrintFormatter(1, "%*d"), "%*d"},
        {PrintFormatter(1, "%.*d"), "%.*d"},
        {PrintFormatter(1, "%1$d"), "%1$d"},
        {PrintFormatter(1, "%d%d"), "%d%d"},
        {PrintFormatter(1, "%d%"), "%d%"},
        {PrintFormatter(1, "%"), "%"},
        {PrintFormatter(1, "%Ld"), "%Ld"},
        {PrintFormatter(1, "%#d"), "%#d"},
        {PrintFormatter(1, "%'d"), "%'d"},
        {PrintFormatter(1, "%10000d"), "%10000d"},
        {PrintFormatter(1.0, "%.10000f"), "%.10000f"},
        {PrintFormatter(1, "%+c"), "%+c"},
        {PrintFormatter(1, "%p"), "%p"},
        {PrintFormatter(1.0, "%hf"), "%hf"},
        {PrintFormatter(1.0, "%I64f"), "%I64f"},
    };
    for (const auto& [arg, options] : refused) {
        Ref<CountingWriter> counting(new CountingWriter);
        EXPECT_EQ(FormatErrorOf([&] { arg.Print(counting.Get()); }), options);
        EXPECT_EQ(counting->GetCount(), 0u) << options;
    }
}

TEST(PrintFormatter, TextObjectsAndExceptions) {
    const char* nullText = nullptr;
    char mutableText[] = "mutable";
    EXPECT_EQ(MF::ASPrint("%1 %2 %3", "plain", nullText, mutableText), "plain (null) mutable");
    const std::string withNuls("a\0b\0", 4);
    EXPECT_EQ(MF::ASPrint("<%1>", withNuls), std::string("<a\0b\0>", 6));
    EXPECT_EQ(One(std::string()), "");

    Ref<Described> object(new Described);
    const Object* nullObject = nullptr;
    EXPECT_EQ(MF::ASPrint("%1 %2", object.Get(), nullObject), "described (null)");

    const std::runtime_error error("boom");
    const std::exception* nullError = nullptr;
    const std::string errorName = typeid(error).name();
    EXPECT_EQ(MF::ASPrint("%1 %2 %3", &error, error, nullError),
              errorName + "(boom) " + errorName + "(boom) (null)");

    // A throwable: the head, then one line per frame of its backtrace.
    const InvalidArgumentException thrown("count");
    const std::string text = One(thrown);
    const std::string head = std::string(typeid(thrown).name()) + "(Invalid argument : count)";
    ASSERT_EQ(text.compare(0, head.size(), head), 0) << text;
    std::string where = thrown.Where();
    ASSERT_FALSE(where.empty());
    while (where.back() == '\n') {
        where.pop_back();
    }
    EXPECT_EQ(text, head + "\n" + where);
    EXPECT_EQ(text.compare(head.size(), 4, "\n#0 "), 0) << text;
    const Throwable* nullThrowable = nullptr;
    EXPECT_EQ(One(nullThrowable), "(null)");
    // Through its std::exception base only the head is printed.
    EXPECT_EQ(One(static_cast<const std::exception&>(thrown)), head);

    Xml::Node node("log");
    node.SetAttribute("level", "info");
    node.AddChild("file").SetText("a&b.log");
    const Xml::Node* nullNode = nullptr;
    EXPECT_EQ(MF::ASPrint("%1|%2", node, nullNode), node.ToString() + "|(null)");
}

TEST(PrintFormatter, DatesAndCustomFunctions) {
    const System::DateTime time("2009-02-03T10:04:05.5+01:00");
    EXPECT_EQ(One(time), "2009-02-03T10:04:05.5+01:00");
    EXPECT_EQ(One(DateTimePrintFormatter(time)), "2009-02-03T10:04:05.5+01:00");
    EXPECT_EQ(One(DatePrintFormatter(time)), "2009-02-03");
    EXPECT_EQ(One(DatePrintFormatter(time, DatePrintFormatter::LONG_DATE)), "2009-02-03 10:04:05");

    const long long instant = time.GetUtcTime();
    EXPECT_EQ(One(DateTimePrintFormatter(instant, false)), "2009-02-03T09:04:05.5Z");
    EXPECT_EQ(One(DatePrintFormatter(instant, false, DatePrintFormatter::LONG_DATE)),
              "2009-02-03 09:04:05");
    EXPECT_EQ(One(DateTimePrintFormatter(instant, true)),
              System::DateTimeFromUtc(instant, true).ToString());

    // A copy prints its own time, not the original's.
    auto original = std::make_unique<DatePrintFormatter>(instant, false);
    const DatePrintFormatter copy(*original);
    EXPECT_NE(copy.GetValue()._dateTime, original->GetValue()._dateTime);
    original.reset();
    EXPECT_EQ(One(copy), "2009-02-03");

    // A component's own format function gets the value and options it was
    // given.
    FormatValue value;
    value._int32 = 7;
    const PrintFormatter custom(value, "opt", [](Writer* w, const FormatValue& v, const char* o) {
        const std::string text = std::string(o) + "=" + std::to_string(v._int32);
        w->Write(text.data(), static_cast<int>(text.size()));
    });
    EXPECT_EQ(MF::ASPrint("[%1]", custom), "[opt=7]");
}
