// UserInfo: the names as the system gives them and the error when one does not fit its buffer. Wine takes the
// logon name from WINEUSERNAME and the computer name from the prefix's registry, which is why this runs with the
// tests that hold the registration lock.
#include "support/component.h"
#include "vxTypes32_types.h"

#include <string>

namespace vx::test {
namespace {

const wchar_t computer_name_key[] = L"System\\CurrentControlSet\\Control\\ComputerName\\ActiveComputerName";

// The variable or the registry value holds the name for the duration.
class scoped_name {
public:
    scoped_name(bool logon, const std::wstring& name) : logon_(logon) {
        wchar_t old[1024] = {};
        DWORD bytes = sizeof old - sizeof(wchar_t);
        if (logon_) GetEnvironmentVariableW(L"WINEUSERNAME", old, 1023);
        else if (!RegOpenKeyExW(HKEY_LOCAL_MACHINE, computer_name_key, 0, KEY_ALL_ACCESS, key_.put()))
            RegQueryValueExW(key_.get(), L"ComputerName", nullptr, nullptr, reinterpret_cast<BYTE*>(old), &bytes);
        previous_ = old;
        write(name.c_str());
    }
    ~scoped_name() { write(previous_.empty() ? nullptr : previous_.c_str()); }

private:
    void write(const wchar_t* name) const {
        if (logon_) SetEnvironmentVariableW(L"WINEUSERNAME", name);
        else if (name) RegSetValueExW(key_.get(), L"ComputerName", 0, REG_SZ, reinterpret_cast<const BYTE*>(name),
                                      static_cast<DWORD>((wcslen(name) + 1) * sizeof(wchar_t)));
    }
    bool logon_;
    unique_hkey key_;
    std::wstring previous_;
};

TEST(UserInfo, NamesComeWholeOrRaiseTheSystemsError) {
    // Wine's GetComputerNameA refuses any name over 15 characters.
    const struct { bool logon; std::wstring name; long error; } cases[] = {
        {true, L"surveyor", 0}, {true, std::wstring(255, L'x'), 0}, {true, std::wstring(256, L'y'), ERROR_INSUFFICIENT_BUFFER},
        {false, L"RIG-7", 0}, {false, std::wstring(40, L'L'), ERROR_BUFFER_OVERFLOW}};
    for (const auto& c : cases) {
        const std::string label = (c.logon ? "Logon of " : "ComputerName of ") + std::to_string(c.name.size());
        scoped_name name(c.logon, c.name);
        com_ptr<_UserInfo> user = create<_UserInfo>(CLSID_UserInfo, IID__UserInfo);
        unique_variant result;
        const HRESULT hr = c.logon ? user->get_Logon(result.get()) : user->get_ComputerName(result.get());
        EXPECT_EQ(c.error ? automation_error_number(c.error) : S_OK, hr) << label;
        if (!c.error) {
            EXPECT_EQ(c.name, V_VT(result.get()) == VT_BSTR ? text_of(V_BSTR(result.get())) : L"?") << label;
            continue;
        }
        EXPECT_EQ(VT_EMPTY, V_VT(result.get())) << label;
        const error_info error = take_error_info();
        EXPECT_EQ(c.logon ? L"UserInfo.Logon" : L"UserInfo.ComputerName", error.source) << label;
        EXPECT_EQ(c.logon ? L"Failed to get user logon name." : L"Failed to get computer name.", error.description)
            << label;
    }
}

}  // namespace
}  // namespace vx::test
