// UserInfo: the names as the system gives them, the limits of the two
// buffers, and the errors when a name does not fit.
#include "support/component.h"
#include "vxTypes32_types.h"

#include <optional>
#include <string>

namespace vx::test {
namespace {

// Wine takes the logon name from the environment, so a test can choose it.
class scoped_user_name {
public:
    explicit scoped_user_name(const std::wstring& name) {
        wchar_t old[1024];
        const DWORD length = GetEnvironmentVariableW(L"WINEUSERNAME", old, 1024);
        if (length > 0 && length < 1024) previous_ = std::wstring(old, length);
        SetEnvironmentVariableW(L"WINEUSERNAME", name.c_str());
    }
    ~scoped_user_name() { SetEnvironmentVariableW(L"WINEUSERNAME", previous_ ? previous_->c_str() : nullptr); }

private:
    std::optional<std::wstring> previous_;
};

struct property_result {
    HRESULT hr;
    VARTYPE type;
    std::wstring text;
    error_info error;
};

property_result logon() {
    com_ptr<_UserInfo> user = create<_UserInfo>(CLSID_UserInfo, IID__UserInfo);
    unique_variant result;
    const HRESULT hr = user->get_Logon(result.get());
    return {hr, V_VT(result.get()), V_VT(result.get()) == VT_BSTR ? text_of(V_BSTR(result.get())) : L"",
            FAILED(hr) ? take_error_info() : error_info{}};
}

constexpr HRESULT automation_error_number(long number) { return static_cast<HRESULT>(0x800A0000 + number); }

TEST(UserInfoLogon, ReturnsNamesUpTo255CharactersWhole) {
    const std::wstring names[] = {L"surveyor", L"a", std::wstring(100, L'n'), std::wstring(255, L'x')};
    for (const std::wstring& name : names) {
        scoped_user_name user(name);
        const property_result result = logon();
        ASSERT_EQ(S_OK, result.hr) << name.size() << " characters";
        EXPECT_EQ(VT_BSTR, result.type);
        EXPECT_EQ(name, result.text) << name.size() << " characters";
    }
}

TEST(UserInfoLogon, ANameTooLongRaisesTheSystemsBufferError) {
    for (size_t length : {256u, 300u}) {
        scoped_user_name user(std::wstring(length, L'y'));
        const property_result result = logon();
        EXPECT_EQ(automation_error_number(ERROR_INSUFFICIENT_BUFFER), result.hr) << length << " characters";
        EXPECT_EQ(VT_EMPTY, result.type) << "the result stays Empty";
        EXPECT_EQ(L"UserInfo.Logon", result.error.source);
        EXPECT_EQ(L"Failed to get user logon name.", result.error.description);
    }
}

TEST(UserInfoLateBound, AFailureArrivesAsAnExceptionWithItsNumberAndText) {
    scoped_user_name user(std::wstring(256, L'z'));
    com_ptr<IDispatch> object = create<IDispatch>(CLSID_UserInfo, IID_IDispatch);
    unique_variant value;
    EXCEPINFO exception = {};
    DISPPARAMS none = {nullptr, nullptr, 0, 0};
    UINT argument_error = 0;
    ASSERT_EQ(DISP_E_EXCEPTION, object->Invoke(DISPID_VALUE, IID_NULL, 0, DISPATCH_METHOD | DISPATCH_PROPERTYGET,
                                               &none, value.get(), &exception, &argument_error));
    if (exception.pfnDeferredFillIn) exception.pfnDeferredFillIn(&exception);
    const HRESULT number = exception.scode ? exception.scode : automation_error_number(exception.wCode);
    EXPECT_EQ(automation_error_number(ERROR_INSUFFICIENT_BUFFER), number);
    EXPECT_EQ(L"UserInfo.Logon", text_of(exception.bstrSource));
    EXPECT_EQ(L"Failed to get user logon name.", text_of(exception.bstrDescription));
    EXPECT_EQ(VT_EMPTY, V_VT(value.get()));
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
    SysFreeString(exception.bstrHelpFile);
}

}  // namespace
}  // namespace vx::test
