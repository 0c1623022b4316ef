// UserInfo.ComputerName: the name as the system gives it, and the error
// when the system cannot give it. The name lives in the prefix's registry,
// which these tests change, so they run with the other tests that hold the
// registration lock (the script clients read the name too).
#include "support/component.h"
#include "vxTypes32_types.h"

#include <optional>
#include <string>

namespace vx::test {
namespace {

struct property_result {
    HRESULT hr;
    VARTYPE type;
    std::wstring text;
    error_info error;
};

// The computer name lives in the registry of the prefix; put back whatever
// was there.
class scoped_computer_name {
public:
    explicit scoped_computer_name(const std::wstring& name) {
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"System\\CurrentControlSet\\Control\\ComputerName\\ActiveComputerName", 0,
                      KEY_QUERY_VALUE | KEY_SET_VALUE, key_.put());
        wchar_t old[256] = {};
        DWORD bytes = sizeof old - sizeof(wchar_t);
        if (RegQueryValueExW(key_.get(), L"ComputerName", nullptr, nullptr, reinterpret_cast<BYTE*>(old), &bytes) ==
            ERROR_SUCCESS)
            previous_ = old;
        set(name);
    }
    ~scoped_computer_name() {
        if (previous_) set(*previous_);
    }

private:
    void set(const std::wstring& name) {
        RegSetValueExW(key_.get(), L"ComputerName", 0, REG_SZ, reinterpret_cast<const BYTE*>(name.c_str()),
                       static_cast<DWORD>((name.size() + 1) * sizeof(wchar_t)));
    }
    unique_hkey key_;
    std::optional<std::wstring> previous_;
};

property_result computer_name() {
    com_ptr<_UserInfo> user = create<_UserInfo>(CLSID_UserInfo, IID__UserInfo);
    unique_variant result;
    const HRESULT hr = user->get_ComputerName(result.get());
    return {hr, V_VT(result.get()), V_VT(result.get()) == VT_BSTR ? text_of(V_BSTR(result.get())) : L"",
            FAILED(hr) ? take_error_info() : error_info{}};
}

constexpr HRESULT automation_error_number(long number) { return static_cast<HRESULT>(0x800A0000 + number); }

TEST(UserInfoComputerName, ReturnsTheSystemsName) {
    for (const std::wstring& name : {std::wstring(L"RIG-7"), std::wstring(15, L'C')}) {
        scoped_computer_name computer(name);
        const property_result result = computer_name();
        ASSERT_EQ(S_OK, result.hr) << name.size() << " characters";
        EXPECT_EQ(VT_BSTR, result.type);
        EXPECT_EQ(name, result.text);
        EXPECT_EQ(name, computer_name().text) << "the second call agrees";
    }
}

TEST(UserInfoComputerName, ANameTheSystemCannotGiveRaisesItsError) {
    // Wine's GetComputerNameA refuses any name over 15 characters with
    // ERROR_BUFFER_OVERFLOW; names of 16 to 30 cannot be shown whole here.
    scoped_computer_name computer(std::wstring(40, L'L'));
    const property_result result = computer_name();
    EXPECT_EQ(automation_error_number(ERROR_BUFFER_OVERFLOW), result.hr);
    EXPECT_EQ(VT_EMPTY, result.type);
    EXPECT_EQ(L"UserInfo.ComputerName", result.error.source);
    EXPECT_EQ(L"Failed to get computer name.", result.error.description);
}

}  // namespace
}  // namespace vx::test
