// clsEasyRegistry: a current-directory view of the registry. The instance
// keeps one current key open; every member but CurrentKey reports its
// outcome as a status and lets no error out.
#pragma once

#include "frame/automation_object.h"
#include "vxTypes32_types.h"

#include <string>

namespace vx {

class easy_registry final : public automation_object<_clsEasyRegistry> {
public:
    explicit easy_registry(const class_entry& entry);  // the initialisation step
    ~easy_registry() override;                         // the termination step

    HRESULT STDMETHODCALLTYPE get_CurrentKey(BSTR* result) override;
    HRESULT STDMETHODCALLTYPE CD(BSTR strDirectory, LONG* result) override;
    HRESULT STDMETHODCALLTYPE DirKey(VARIANT* DirList, LONG* result) override;
    HRESULT STDMETHODCALLTYPE DirValue(VARIANT* ValueList, LONG* result) override;
    HRESULT STDMETHODCALLTYPE put_ValueOf(BSTR strValueName, enmDataType* lngValueType, LONG* lRet,
                                          VARIANT vValue) override;
    HRESULT STDMETHODCALLTYPE get_ValueOf(BSTR strValueName, enmDataType* lngValueType, LONG* lRet,
                                          VARIANT* result) override;
    HRESULT STDMETHODCALLTYPE MakeKey(BSTR strDirectory, LONG* result) override;
    HRESULT STDMETHODCALLTYPE DeleteKey(BSTR strName, LONG* result) override;
    HRESULT STDMETHODCALLTYPE DeleteValue(BSTR strName, LONG* result) override;

private:
    long open_key_path(std::wstring path, REGSAM access);
    void close_current_key();

    // Empty when there is no current key.
    std::wstring current_key_;
    // Empty when there is no current key, and also when the current key
    // failed to open: then every call on it is refused, so no write can
    // land on the root or on the key that was current before.
    unique_hkey key_handle_;
};

}  // namespace vx
