// Runtime services: the conversions, formats and small services of the
// automation runtime that the classes share, built on OLE Automation where
// it provides them.
//
// Errors. Services that can fail raise an automation_error with the
// runtime's standard number and description. Its source is the caller's
// member when the caller passes one, otherwise runtime_error_source, the
// component's name, which is what the runtime reports for its own faults.
//
// Threads. Nothing here takes a lock. The random-number generator is kept
// per thread (each apartment has its own), so instances never share it.
// The seams for the clock and the message box are process-wide and meant
// for tests only; production code never sets them.
#pragma once

#include "frame/handles.h"
#include "library_identity.h"

#include <windows.h>
#include <oleauto.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace vx {

inline constexpr const wchar_t* runtime_error_source = identity::library_name;

// The error number that a client of the runtime sees for a failed HRESULT:
// 0x800A0000 + n as n, DISP_E_OVERFLOW as 6, DISP_E_TYPEMISMATCH as 13,
// E_OUTOFMEMORY as 7, anything else as the HRESULT itself.
long error_number_from_hresult(HRESULT failure);

// Raises that number with the runtime's description for it, or "Automation
// error" when it has none.
[[noreturn]] void raise_hresult(HRESULT failure, const wchar_t* source = runtime_error_source);

// ---- Numbers ---------------------------------------------------------------

// x ^ y: the platform's pow, rounded to Double before it is returned, so a
// square that is subnormal loses its low bits here and not later. Raises
// nothing: an overflow gives an infinity and an invalid case NaN, for the
// caller to test as its class requires.
double power(double base, double exponent);

// Rounding to the nearest whole number, halves to even (CLng, CInt, CByte).
// A value outside the type's range, an infinity or NaN raises error 6.
long to_long(double value, const wchar_t* source = runtime_error_source);
short to_integer(double value, const wchar_t* source = runtime_error_source);
unsigned char to_byte(double value, const wchar_t* source = runtime_error_source);

// Int: the largest whole number not above the value, still a Double.
double int_floor(double value);

// CLng of a variant (ByRef dereferenced): numbers round as to_long, text is
// parsed in the user's locale, Empty is 0. Null raises 94, a value that
// cannot be a number 13, one out of range 6.
long variant_to_long(const VARIANT& value, const wchar_t* source = runtime_error_source);

// ---- Text of values --------------------------------------------------------

// The text a Double gets when it is assigned to a String: the locale's
// decimal separator, at most 15 significant digits, no trailing zeros, no
// thousands separators, exponent form ("1E+15", "1E-05") where the platform
// chooses it; -0 gives "0". Infinities and NaN get the Microsoft C
// runtime's spellings, "1.#INF", "-1.#INF", "-1.#IND" (the indefinite NaN)
// and "1.#QNAN"/"-1.#QNAN" (any other NaN), the same in every locale:
// oleaut32 builds disagree on them (Wine gives "INF" and "NAN").
std::wstring double_to_text(double value);
std::wstring double_to_text(double value, LCID locale);

// Hex$: upper-case hexadecimal digits without leading zeros, "0" for 0.
std::wstring hex(std::uint32_t value);

// Format$(value, pattern) with the number pattern language of VarFormat:
// "0,000,000,000" gives at least ten digits, grouped by threes with the
// locale's thousands separator.
std::wstring format_number(double value, const std::wstring& pattern);
std::wstring format_number(double value, const std::wstring& pattern, LCID locale);

// TypeName: "Empty", "Null", "Integer", "Long", "Single", "Double",
// "Currency", "Date", "String", "Boolean", "Error", "Decimal", "Byte",
// "Object" (a set object reference), "Nothing" (an unset one), "Unknown" (an
// IUnknown, and any type the runtime has no name for); an array is its
// element type's name followed by "()" ("Byte()", "Variant()"). ByRef
// variants are dereferenced. Objects are not asked for their class name.
std::wstring type_name(const VARIANT& value);

// ---- Strings -----------------------------------------------------------------
// Positions are 1-based as in the runtime. Arguments that the runtime
// refuses (a negative length, a start below 1) raise error 5.

// Trim: leading and trailing spaces removed, and only spaces.
std::wstring trim(const std::wstring& text);

// UCase, with the user's locale rules.
std::wstring upper_case(const std::wstring& text);

// InStr(start, text, sought): the position of the first occurrence at or
// after start, 0 when there is none. An empty sought string is found at
// start when start is at most one past the end.
long instr(const std::wstring& text, const std::wstring& sought, long start = 1,
           const wchar_t* source = runtime_error_source);

// Left$: the first length characters, the whole text when it is shorter.
std::wstring left(const std::wstring& text, long length, const wchar_t* source = runtime_error_source);

// Mid$: from start to the end, or at most length characters from start;
// empty when start is past the end.
std::wstring mid(const std::wstring& text, long start, const wchar_t* source = runtime_error_source);
std::wstring mid(const std::wstring& text, long start, long length,
                 const wchar_t* source = runtime_error_source);

// String$(count, character).
std::wstring string_of(long count, wchar_t character, const wchar_t* source = runtime_error_source);

// The system ANSI code page (CP_ACP), both ways, for every ANSI Win32 call.
// Embedded NULs are kept; characters the code page lacks become its
// default character.
std::string to_ansi(const std::wstring& text);
std::wstring from_ansi(const char* data, std::size_t size);
std::wstring from_ansi(const std::string& text);

// ---- Clock -------------------------------------------------------------------

// Timer: seconds since local midnight, with fractions, in single precision.
float time_of_day();

// Seam for tests: replaces the clock that time_of_day reads; null restores
// the system clock. Returns the source that was in place.
using time_of_day_source = float (*)();
time_of_day_source set_time_of_day_source(time_of_day_source source);

class scoped_time_of_day_source {
public:
    explicit scoped_time_of_day_source(time_of_day_source source)
        : previous_(set_time_of_day_source(source)) {}
    scoped_time_of_day_source(const scoped_time_of_day_source&) = delete;
    scoped_time_of_day_source& operator=(const scoped_time_of_day_source&) = delete;
    ~scoped_time_of_day_source() { set_time_of_day_source(previous_); }

private:
    time_of_day_source previous_;
};

// ---- Random numbers ----------------------------------------------------------

// Rnd: uniform in [0, 1), a multiple of 2^-24, so exact in single precision
// and exact after a product with any byte value. The generator belongs to the
// calling thread; every thread starts from the same fixed seed.
float random_number();

// Randomize seed: the same seed gives the same sequence after it on the
// same thread. A Single seed converts exactly, so the Single and the
// Double of one value seed alike.
void reseed_random(double seed);

// ---- Message box ---------------------------------------------------------------

// MsgBox text: modal to the thread's active window, OK button only, no icon,
// the library's name as caption; returns when the user dismisses it.
void message_box(const std::wstring& text);

// Seam for tests: replaces the box; null restores the real one. Returns the
// handler that was in place.
using message_box_handler = void (*)(const std::wstring& text);
message_box_handler set_message_box_handler(message_box_handler handler);

class scoped_message_box_handler {
public:
    explicit scoped_message_box_handler(message_box_handler handler)
        : previous_(set_message_box_handler(handler)) {}
    scoped_message_box_handler(const scoped_message_box_handler&) = delete;
    scoped_message_box_handler& operator=(const scoped_message_box_handler&) = delete;
    ~scoped_message_box_handler() { set_message_box_handler(previous_); }

private:
    message_box_handler previous_;
};

// ---- Late-bound calls -------------------------------------------------------------

// Raises what an object reported through EXCEPINFO when its Invoke failed
// with DISP_E_EXCEPTION: the wCode, or else the scode, or else (an object
// that names no error still failed) DISP_E_EXCEPTION itself; its source or
// else the one given; its description or else the runtime's for the number,
// or "Automation error". Fills the EXCEPINFO in first when the object
// deferred it, and leaves it empty, its strings freed.
[[noreturn]] void raise_exception_info(EXCEPINFO& exception, const wchar_t* source = runtime_error_source);

// Reads the object's default property (DISPID 0) with IDispatch::Invoke,
// DISPATCH_PROPERTYGET and no arguments, into result (cleared first). A
// null object raises 91. A failed Invoke raises its error: for
// DISP_E_EXCEPTION as raise_exception_info gives it; for any other failure
// the HRESULT as raise_hresult gives it.
void read_default_property(IDispatch* object, unique_variant& result,
                           const wchar_t* source = runtime_error_source);

}  // namespace vx
