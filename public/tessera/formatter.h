// Message formatting: "%1"-style templates over typed arguments.
//
//     std::string text = Tessera::MessageFormatter::ASPrint(
//         "Request %1 took %2 ms from %3", id, elapsed, peer);
//     Tessera::MessageFormatter::Print(writer, "mask %1", Tessera::PrintFormatter(mask, "%08x"));
//
// Template rules: "%1" to "%9" print the first to the ninth argument, and an
// argument may appear any number of times or not at all. Only one digit is
// read, so "%10" is the first argument followed by "0". "%%" prints one "%".
// A "%" followed by anything else ("%0", "%a") is printed as it stands, and a
// "%" that ends the template prints nothing. A placeholder past the last
// argument throws InvalidFormatStringException whose message is the whole
// template; the text before it has been written by then.
//
// Each argument is a PrintFormatter, built implicitly from the value at the
// call site. It does not copy what it points to: strings, objects, exceptions,
// nodes and times must outlive the call that prints them (temporaries of the
// calling expression do).
//
// Numbers may carry an option string: one printf conversion, optionally with
// literal text around it ("%08x", "%.2f", "%+d ms", "%I64u"). Length
// modifiers are read in both dialects, the C one (hh, h, l, ll, j, z, t, L)
// and the Windows one (I64, I32, I), and mean the same on every platform: hh,
// h and I32 narrow the value, every other modifier prints it at the width of
// its own type. "%p" prints 16 upper-case hexadecimal digits; "%a" and "%A"
// print a double in hexadecimal ("0x1.8p+1" for 3.0). An option string
// that is not such a conversion for the argument ("%s" for a number, "%d" for
// a double, two conversions, "*" or "$", a width or precision above 9999)
// throws InvalidFormatStringException whose message is the option string,
// before anything of that argument is written.
#pragma once

#include <tessera/api.h>
#include <tessera/object.h>
#include <tessera/system/dateTime.h>
#include <tessera/writer.h>

#include <cstdint>
#include <exception>
#include <string>

namespace Tessera {

class Throwable;
namespace Xml {
class Node;
}

// One argument's value, held by value (numbers) or by pointer (everything
// else). Which member is live is known to the format function alone.
union FormatValue {
    std::int32_t _int32;
    std::uint32_t _uint32;
    std::int64_t _int64;
    std::uint64_t _uint64;
    double _double;
    const char* _string;
    const std::string* _stlString;
    const Object* _object;
    const void* _pointer;
    const Xml::Node* _xmlNode;
    const std::exception* _exception;
    const Throwable* _throwable;
    const System::DateTime* _dateTime;
};

static_assert(sizeof(FormatValue) == 8, "a format value is one 8-byte word");

class TESSERA_EXPORT PrintFormatter {
public:
    // Prints `value` to `w` under `options` (null when none were given).
    using FormatFunction = void (*)(Writer* w, const FormatValue& value, const char* options);

    // "true" or "false"; options are ignored.
    PrintFormatter(bool value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatBoolean) {
        _value._int32 = value ? 1 : 0;
    }
    // The character itself, or the option's conversion ("%d", "%02x").
    PrintFormatter(char value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatChar) {
        _value._int32 = value;
    }
    PrintFormatter(signed char value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatChar) {
        _value._int32 = value;
    }
    // Decimal unless the options say otherwise.
    PrintFormatter(int value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatInt) {
        _value._int32 = value;
    }
    PrintFormatter(unsigned int value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatUInt) {
        _value._uint32 = value;
    }
    // A long is printed at its own width: 32 bits on Windows, 64 elsewhere.
    PrintFormatter(long value, const char* options = nullptr) noexcept : _options(options) {
        if constexpr (sizeof(long) == sizeof(std::int32_t)) {
            _value._int32 = static_cast<std::int32_t>(value);
            _function = &FormatInt;
        } else {
            _value._int64 = value;
            _function = &FormatLong;
        }
    }
    PrintFormatter(unsigned long value, const char* options = nullptr) noexcept
        : _options(options) {
        if constexpr (sizeof(unsigned long) == sizeof(std::uint32_t)) {
            _value._uint32 = static_cast<std::uint32_t>(value);
            _function = &FormatUInt;
        } else {
            _value._uint64 = value;
            _function = &FormatULong;
        }
    }
    PrintFormatter(long long value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatLong) {
        _value._int64 = value;
    }
    PrintFormatter(unsigned long long value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatULong) {
        _value._uint64 = value;
    }
    // "%f" unless the options say otherwise.
    PrintFormatter(float value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatFloat) {
        _value._double = value;
    }
    // "%g" unless the options say otherwise.
    PrintFormatter(double value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatDouble) {
        _value._double = value;
    }
    // The address as 16 lower-case hexadecimal digits unless the options say
    // otherwise.
    PrintFormatter(const void* value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatPtr) {
        _value._pointer = value;
    }
    // The text up to its NUL; a null pointer prints "(null)". Options are
    // ignored by this and every kind below.
    PrintFormatter(const char* value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatString) {
        _value._string = value;
    }
    // Every byte of the string, NULs included.
    PrintFormatter(const std::string& value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatSTLString) {
        _value._stlString = &value;
    }
    // The object's ToString().
    PrintFormatter(const Object* value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatObject) {
        _value._object = value;
    }
    // type_info::name() of the dynamic type, then "(", what() and ")".
    PrintFormatter(const std::exception* value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatException) {
        _value._exception = value;
    }
    PrintFormatter(const std::exception& value, const char* options = nullptr) noexcept
        : PrintFormatter(&value, options) {}
    // As for std::exception, then the lines of the exception's backtrace.
    PrintFormatter(const Throwable* value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatThrowable) {
        _value._throwable = value;
    }
    PrintFormatter(const Throwable& value, const char* options = nullptr) noexcept
        : PrintFormatter(&value, options) {}
    // The node as XML text.
    PrintFormatter(const Xml::Node* value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatXmlNode) {
        _value._xmlNode = value;
    }
    PrintFormatter(const Xml::Node& value, const char* options = nullptr) noexcept
        : PrintFormatter(&value, options) {}
    // The ISO 8601 form, as DateTime::ToString() writes it.
    PrintFormatter(const System::DateTime& value, const char* options = nullptr) noexcept
        : _options(options), _function(&FormatDateTime) {
        _value._dateTime = &value;
    }
    // A value printed by a function of the caller's, which receives `value`
    // and `options` as given here.
    PrintFormatter(const FormatValue& value, const char* options, FormatFunction function) noexcept
        : _value(value), _options(options), _function(function) {}

    void Print(Writer* w) const { _function(w, _value, _options); }
    // Appends what Print writes to `out`; if printing throws, `out` is left
    // as it was.
    void PrintToString(std::string& out) const;

    const FormatValue& GetValue() const noexcept { return _value; }
    const char* GetOptions() const noexcept { return _options; }
    FormatFunction GetFunction() const noexcept { return _function; }

    // The format functions of the kinds above. Null pointers of the string,
    // object, exception, throwable, node and time kinds print "(null)".
    static void FormatBoolean(Writer* w, const FormatValue& value, const char* options);
    static void FormatChar(Writer* w, const FormatValue& value, const char* options);
    static void FormatInt(Writer* w, const FormatValue& value, const char* options);
    static void FormatUInt(Writer* w, const FormatValue& value, const char* options);
    static void FormatLong(Writer* w, const FormatValue& value, const char* options);
    static void FormatULong(Writer* w, const FormatValue& value, const char* options);
    static void FormatFloat(Writer* w, const FormatValue& value, const char* options);
    static void FormatDouble(Writer* w, const FormatValue& value, const char* options);
    static void FormatPtr(Writer* w, const FormatValue& value, const char* options);
    static void FormatString(Writer* w, const FormatValue& value, const char* options);
    static void FormatSTLString(Writer* w, const FormatValue& value, const char* options);
    static void FormatObject(Writer* w, const FormatValue& value, const char* options);
    static void FormatException(Writer* w, const FormatValue& value, const char* options);
    static void FormatThrowable(Writer* w, const FormatValue& value, const char* options);
    static void FormatXmlNode(Writer* w, const FormatValue& value, const char* options);
    static void FormatDateTime(Writer* w, const FormatValue& value, const char* options);

protected:
    FormatValue _value;
    const char* _options;
    FormatFunction _function;
};

// A date, "2009-02-03", or a long date with the time of day,
// "2009-02-03 10:04:05", without fraction or zone.
class TESSERA_EXPORT DatePrintFormatter : public PrintFormatter {
public:
    enum Form { DATE, LONG_DATE };

    explicit DatePrintFormatter(const System::DateTime& value, Form form = DATE) noexcept
        : PrintFormatter(value) {
        _function = FunctionOf(form);
    }
    // The instant `utcTime` (microseconds since 1970-01-01T00:00:00Z), in the
    // local zone or in UTC.
    DatePrintFormatter(long long utcTime, bool local, Form form = DATE)
        : PrintFormatter(_ownTime), _ownTime(System::DateTimeFromUtc(utcTime, local)) {
        _function = FunctionOf(form);
    }
    DatePrintFormatter(const DatePrintFormatter& other) noexcept
        : PrintFormatter(other), _ownTime(other._ownTime) {
        if (other._value._dateTime == &other._ownTime) {
            _value._dateTime = &_ownTime;
        }
    }
    DatePrintFormatter& operator=(const DatePrintFormatter&) = delete;

    static void FormatDate(Writer* w, const FormatValue& value, const char* options);
    static void FormatLongDate(Writer* w, const FormatValue& value, const char* options);

private:
    static FormatFunction FunctionOf(Form form) noexcept {
        return form == LONG_DATE ? &FormatLongDate : &FormatDate;
    }

    System::DateTime _ownTime;
};

// A date with the time of day, fraction and zone: the ISO 8601 form of
// DateTime::ToString(), "2009-02-03T10:04:05.5+01:00".
class TESSERA_EXPORT DateTimePrintFormatter : public PrintFormatter {
public:
    explicit DateTimePrintFormatter(const System::DateTime& value) noexcept
        : PrintFormatter(value) {}
    // The instant `utcTime` (microseconds since 1970-01-01T00:00:00Z), in the
    // local zone or in UTC.
    DateTimePrintFormatter(long long utcTime, bool local)
        : PrintFormatter(_ownTime), _ownTime(System::DateTimeFromUtc(utcTime, local)) {}
    DateTimePrintFormatter(const DateTimePrintFormatter& other) noexcept
        : PrintFormatter(other), _ownTime(other._ownTime) {
        if (other._value._dateTime == &other._ownTime) {
            _value._dateTime = &_ownTime;
        }
    }
    DateTimePrintFormatter& operator=(const DateTimePrintFormatter&) = delete;

private:
    System::DateTime _ownTime;
};

// Expands a template over one to nine arguments; see the top of this file.
class TESSERA_EXPORT MessageFormatter {
public:
    // Writes the expansion to `w`: each run of literal text with one Write.
    static void Print(Writer* w, const char* format, const PrintFormatter& a1) {
        const PrintFormatter* args[] = {&a1};
        PrintArgs(w, format, args, 1);
    }
    static void Print(Writer* w, const char* format, const PrintFormatter& a1,
                      const PrintFormatter& a2) {
        const PrintFormatter* args[] = {&a1, &a2};
        PrintArgs(w, format, args, 2);
    }
    static void Print(Writer* w, const char* format, const PrintFormatter& a1,
                      const PrintFormatter& a2, const PrintFormatter& a3) {
        const PrintFormatter* args[] = {&a1, &a2, &a3};
        PrintArgs(w, format, args, 3);
    }
    static void Print(Writer* w, const char* format, const PrintFormatter& a1,
                      const PrintFormatter& a2, const PrintFormatter& a3,
                      const PrintFormatter& a4) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4};
        PrintArgs(w, format, args, 4);
    }
    static void Print(Writer* w, const char* format, const PrintFormatter& a1,
                      const PrintFormatter& a2, const PrintFormatter& a3, const PrintFormatter& a4,
                      const PrintFormatter& a5) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4, &a5};
        PrintArgs(w, format, args, 5);
    }
    static void Print(Writer* w, const char* format, const PrintFormatter& a1,
                      const PrintFormatter& a2, const PrintFormatter& a3, const PrintFormatter& a4,
                      const PrintFormatter& a5, const PrintFormatter& a6) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4, &a5, &a6};
        PrintArgs(w, format, args, 6);
    }
    static void Print(Writer* w, const char* format, const PrintFormatter& a1,
                      const PrintFormatter& a2, const PrintFormatter& a3, const PrintFormatter& a4,
                      const PrintFormatter& a5, const PrintFormatter& a6,
                      const PrintFormatter& a7) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4, &a5, &a6, &a7};
        PrintArgs(w, format, args, 7);
    }
    static void Print(Writer* w, const char* format, const PrintFormatter& a1,
                      const PrintFormatter& a2, const PrintFormatter& a3, const PrintFormatter& a4,
                      const PrintFormatter& a5, const PrintFormatter& a6, const PrintFormatter& a7,
                      const PrintFormatter& a8) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8};
        PrintArgs(w, format, args, 8);
    }
    static void Print(Writer* w, const char* format, const PrintFormatter& a1,
                      const PrintFormatter& a2, const PrintFormatter& a3, const PrintFormatter& a4,
                      const PrintFormatter& a5, const PrintFormatter& a6, const PrintFormatter& a7,
                      const PrintFormatter& a8, const PrintFormatter& a9) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9};
        PrintArgs(w, format, args, 9);
    }

    // The expansion as a string.
    static std::string ASPrint(const char* format, const PrintFormatter& a1) {
        const PrintFormatter* args[] = {&a1};
        return ASPrintArgs(format, args, 1);
    }
    static std::string ASPrint(const char* format, const PrintFormatter& a1,
                               const PrintFormatter& a2) {
        const PrintFormatter* args[] = {&a1, &a2};
        return ASPrintArgs(format, args, 2);
    }
    static std::string ASPrint(const char* format, const PrintFormatter& a1,
                               const PrintFormatter& a2, const PrintFormatter& a3) {
        const PrintFormatter* args[] = {&a1, &a2, &a3};
        return ASPrintArgs(format, args, 3);
    }
    static std::string ASPrint(const char* format, const PrintFormatter& a1,
                               const PrintFormatter& a2, const PrintFormatter& a3,
                               const PrintFormatter& a4) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4};
        return ASPrintArgs(format, args, 4);
    }
    static std::string ASPrint(const char* format, const PrintFormatter& a1,
                               const PrintFormatter& a2, const PrintFormatter& a3,
                               const PrintFormatter& a4, const PrintFormatter& a5) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4, &a5};
        return ASPrintArgs(format, args, 5);
    }
    static std::string ASPrint(const char* format, const PrintFormatter& a1,
                               const PrintFormatter& a2, const PrintFormatter& a3,
                               const PrintFormatter& a4, const PrintFormatter& a5,
                               const PrintFormatter& a6) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4, &a5, &a6};
        return ASPrintArgs(format, args, 6);
    }
    static std::string ASPrint(const char* format, const PrintFormatter& a1,
                               const PrintFormatter& a2, const PrintFormatter& a3,
                               const PrintFormatter& a4, const PrintFormatter& a5,
                               const PrintFormatter& a6, const PrintFormatter& a7) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4, &a5, &a6, &a7};
        return ASPrintArgs(format, args, 7);
    }
    static std::string ASPrint(const char* format, const PrintFormatter& a1,
                               const PrintFormatter& a2, const PrintFormatter& a3,
                               const PrintFormatter& a4, const PrintFormatter& a5,
                               const PrintFormatter& a6, const PrintFormatter& a7,
                               const PrintFormatter& a8) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8};
        return ASPrintArgs(format, args, 8);
    }
    static std::string ASPrint(const char* format, const PrintFormatter& a1,
                               const PrintFormatter& a2, const PrintFormatter& a3,
                               const PrintFormatter& a4, const PrintFormatter& a5,
                               const PrintFormatter& a6, const PrintFormatter& a7,
                               const PrintFormatter& a8, const PrintFormatter& a9) {
        const PrintFormatter* args[] = {&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9};
        return ASPrintArgs(format, args, 9);
    }

    // The same over `count` arguments given as an array. A null template is
    // taken as an empty one.
    static void PrintArgs(Writer* w, const char* format, const PrintFormatter* const* args,
                          int count);
    static std::string ASPrintArgs(const char* format, const PrintFormatter* const* args,
                                   int count);
};

}  // namespace Tessera
