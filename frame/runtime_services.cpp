// Runtime services: the clock, the random-number generator, the message box
// and the late-bound read of a default property.
#include "frame/runtime.h"

#include "frame/automation_error.h"

#include <atomic>
#include <cstring>

namespace vx {

namespace {

float system_time_of_day() {
    SYSTEMTIME now;
    GetLocalTime(&now);
    const double seconds = now.wHour * 3600.0 + now.wMinute * 60.0 + now.wSecond + now.wMilliseconds / 1000.0;
    return static_cast<float>(seconds);
}

void system_message_box(const std::wstring& text) {
    MessageBoxW(GetActiveWindow(), text.c_str(), runtime_error_source, MB_OK);
}

std::atomic<time_of_day_source> replaced_clock{nullptr};
std::atomic<message_box_handler> replaced_message_box{nullptr};

// splitmix64: one word of state, so it needs no construction per thread.
constexpr std::uint64_t initial_random_state = 0x50000;
thread_local std::uint64_t random_state = initial_random_state;

std::uint64_t next_random_word() {
    std::uint64_t z = (random_state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

}  // namespace

void raise_exception_info(EXCEPINFO& exception, const wchar_t* source) {
    if (exception.pfnDeferredFillIn) exception.pfnDeferredFillIn(&exception);
    const unique_bstr error_source(exception.bstrSource);
    const unique_bstr description(exception.bstrDescription);
    const unique_bstr help_file(exception.bstrHelpFile);
    // An object that names no error at all still failed.
    const long number = exception.wCode != 0 ? exception.wCode
                        : error_number_from_hresult(exception.scode != 0 ? exception.scode : DISP_E_EXCEPTION);
    exception = EXCEPINFO{};
    std::wstring text(description.get(), description.length());
    if (text.empty()) text = standard_error_description(number);
    if (text.empty()) text = L"Automation error";
    raise_error(number, error_source.length() ? std::wstring(error_source.get(), error_source.length()) : source,
                text);
}

float time_of_day() {
    const time_of_day_source clock = replaced_clock.load();
    return clock ? clock() : system_time_of_day();
}

time_of_day_source set_time_of_day_source(time_of_day_source source) { return replaced_clock.exchange(source); }

float random_number() {
    // The top 24 bits: every value k / 2^24 is exact in single precision.
    return static_cast<float>(next_random_word() >> 40) * (1.0f / 16777216.0f);
}

void reseed_random(double seed) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &seed, sizeof bits);
    random_state = bits;
}

void message_box(const std::wstring& text) {
    const message_box_handler handler = replaced_message_box.load();
    if (handler)
        handler(text);
    else
        system_message_box(text);
}

message_box_handler set_message_box_handler(message_box_handler handler) {
    return replaced_message_box.exchange(handler);
}

void read_default_property(IDispatch* object, unique_variant& result, const wchar_t* source) {
    VARIANT* value = result.put();
    if (!object) raise_error(error_object_not_set, source);
    DISPPARAMS no_arguments{};
    EXCEPINFO exception{};
    UINT argument_error = 0;
    const HRESULT hr = object->Invoke(DISPID_VALUE, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET,
                                      &no_arguments, value, &exception, &argument_error);
    if (SUCCEEDED(hr)) return;
    result.put();  // whatever a failing object left there is not a result
    if (hr == DISP_E_EXCEPTION) raise_exception_info(exception, source);
    raise_hresult(hr, source);
}

}  // namespace vx
