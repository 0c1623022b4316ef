// Our dispatcher against the platform's ITypeInfo::Invoke: every member of
// every class in the class table, called both ways over a battery of
// argument shapes, must give the same HRESULT, result, write-backs,
// argument error and exception.
#include "frame/class_table.h"
#include "support/box_dismisser.h"
#include "support/component.h"
#include "vxTypes32_types.h"

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace vx::test {
namespace {

// The reference path resolves imported types through the registry, so the
// stand-in for the VB runtime's library is registered in the test prefix.
class registered_standin : public ::testing::Environment {
public:
    void SetUp() override {
        com_ptr<ITypeLib> library;
        ASSERT_EQ(S_OK, LoadTypeLibEx(VX_STANDIN_TYPELIB, REGKIND_REGISTER, library.put()));
    }
};
const auto* const standin = ::testing::AddGlobalTestEnvironment(new registered_standin);

// An argument as a test describes it; made afresh for each path so that
// the two calls never share storage.
struct argument {
    std::string label;
    std::function<void(VARIANT&, std::vector<std::shared_ptr<VARIANT>>&)> make;
};

struct call_outcome {
    HRESULT hr = S_OK;
    std::wstring result;
    std::wstring written_back;
    UINT argument_error = 0xFFFF;
    HRESULT exception_code = S_OK;
    std::wstring source, description;

    bool operator==(const call_outcome& o) const {
        return hr == o.hr && result == o.result && written_back == o.written_back &&
               argument_error == o.argument_error && exception_code == o.exception_code && source == o.source &&
               description == o.description;
    }
};

std::wstring describe(const VARIANT& value) {
    std::wostringstream text;
    VARIANT plain;
    VariantInit(&plain);
    VariantCopyInd(&plain, const_cast<VARIANT*>(&value));
    text << L"vt=" << V_VT(&value);
    if (V_VT(&plain) == VT_DISPATCH || V_VT(&plain) == VT_UNKNOWN) {
        text << (V_UNKNOWN(&plain) ? L" object" : L" nothing");
    } else if (V_VT(&plain) != VT_EMPTY && V_VT(&plain) != VT_NULL && !(V_VT(&plain) & VT_ARRAY)) {
        VARIANT as_text;
        VariantInit(&as_text);
        if (SUCCEEDED(VariantChangeType(&as_text, &plain, 0, VT_BSTR)))
            text << L" " << text_of(V_BSTR(&as_text));
        VariantClear(&as_text);
    }
    VariantClear(&plain);
    return text.str();
}

std::ostream& operator<<(std::ostream& out, const call_outcome& o) {
    return out << hex(o.hr) << " [" << narrow(o.result) << "] [" << narrow(o.written_back) << "] "
               << o.argument_error << " " << hex(o.exception_code) << " [" << narrow(o.source + L"] [" + o.description) << "]";
}

// Where Wine's ITypeInfo::Invoke departs from the documented behaviour of
// Windows in what it answers, the expectation follows Windows:
// - setting a property that has no put form (or a method) answers
//   DISP_E_MEMBERNOTFOUND ("tried to set the value of a read-only
//   property"); Wine answers E_INVALIDARG;
// - more arguments than a method takes answer DISP_E_BADPARAMCOUNT; Wine
//   ignores the surplus and calls the member (or, in 64-bit code, calls
//   it a bad type where the member takes a LongLong by reference);
// - a member that fails leaves the result as it was, Empty; Wine writes the
//   unwritten object retval as Nothing;
// - puArgErr names the argument that failed to convert; Wine leaves it
//   unset, so it is compared only where Wine sets it.
call_outcome as_windows_answers(call_outcome wine, const call_outcome& ours, const member_entry& member,
                                WORD flags, const std::string& shape_label, bool more_than_it_takes) {
    if (wine.hr == E_INVALIDARG && (flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) &&
        member.invoke_kind != INVOKE_PROPERTYPUT && member.invoke_kind != INVOKE_PROPERTYPUTREF)
        wine.hr = DISP_E_MEMBERNOTFOUND;
    if (shape_label == "one argument too many" && more_than_it_takes &&
        (SUCCEEDED(wine.hr) || (sizeof(void*) == 8 && wine.hr == DISP_E_BADVARTYPE))) {
        wine = call_outcome{};
        wine.hr = DISP_E_BADPARAMCOUNT;
        wine.result = L"vt=0";
        wine.written_back = ours.written_back;  // never touched: the member is not called
    }
    if (wine.hr == DISP_E_EXCEPTION && wine.result == L"vt=9 nothing") wine.result = L"vt=0";
    if (wine.argument_error == 0xFFFF) wine.argument_error = ours.argument_error;
    return wine;
}

using invoker = std::function<HRESULT(DISPID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*)>;

// What a member leaves in a ByRef variable, made comparable: called on each
// variable before it is described.
using written_back_hook = std::function<void(VARIANT&)>;

call_outcome call(const invoker& invoke, DISPID id, WORD flags, const std::vector<argument>& arguments,
                  bool named_put, const written_back_hook& settle = {}) {
    std::vector<std::shared_ptr<VARIANT>> storage;
    std::vector<VARIANT> reversed(arguments.size());
    for (size_t i = 0; i < arguments.size(); ++i) {
        VARIANT& slot = reversed[arguments.size() - 1 - i];
        VariantInit(&slot);
        arguments[i].make(slot, storage);
    }
    // A named put argument needs an argument to name.
    named_put = named_put && !reversed.empty();
    DISPID put_id = DISPID_PROPERTYPUT;
    DISPPARAMS params = {reversed.empty() ? nullptr : reversed.data(), named_put ? &put_id : nullptr,
                         static_cast<UINT>(reversed.size()), named_put ? 1u : 0u};
    VARIANT result;
    VariantInit(&result);
    EXCEPINFO exception = {};
    call_outcome outcome;
    outcome.hr = invoke(id, flags, &params, &result, &exception, &outcome.argument_error);
    if (outcome.hr != DISP_E_TYPEMISMATCH && outcome.hr != DISP_E_OVERFLOW && outcome.hr != DISP_E_PARAMNOTFOUND)
        outcome.argument_error = 0xFFFF;  // only meaningful for argument failures
    if (exception.pfnDeferredFillIn) exception.pfnDeferredFillIn(&exception);
    outcome.exception_code = exception.scode ? exception.scode : exception.wCode;
    outcome.source = text_of(exception.bstrSource);
    outcome.description = text_of(exception.bstrDescription);
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
    SysFreeString(exception.bstrHelpFile);
    outcome.result = describe(result);
    VariantClear(&result);
    for (const auto& variable : storage) {
        if (settle) settle(*variable);
        outcome.written_back += describe(*variable) + L";";
    }
    for (VARIANT& v : reversed) VariantClear(&v);
    return outcome;
}

// The natural value of a parameter type (which 0), and others a client may
// send: a string holding a number, a number of another type, text that is
// no number, one too big for the smaller types, and Null.
VARIANT sample(VARTYPE type, int which, IDispatch* object) {
    VARIANT v;
    VariantInit(&v);
    V_VT(&v) = which == 0 ? type : VARTYPE(which == 5 ? VT_NULL : which % 2 ? VT_BSTR : VT_R8);
    if (which == 1 || which == 3) V_BSTR(&v) = SysAllocString(which == 1 ? L"12" : L"abc");
    if (which == 2 || which == 4) V_R8(&v) = which == 2 ? 2.5 : 1e12;
    if (which != 0) return v;
    switch (type) {
    case VT_I2: V_I2(&v) = 2; break;
    case VT_I4: V_I4(&v) = 3; break;
    case VT_R4: V_R4(&v) = 1.5f; break;
    case VT_R8: V_R8(&v) = 2.25; break;
    case VT_BOOL: V_BOOL(&v) = VARIANT_TRUE; break;
    case VT_BSTR: V_BSTR(&v) = SysAllocString(L"x"); break;
    case VT_VARIANT: V_VT(&v) = VT_I4; V_I4(&v) = 7; break;
    case VT_DISPATCH:
        V_DISPATCH(&v) = object;
        if (object) object->AddRef();
        break;
    default: V_VT(&v) = VT_EMPTY; break;
    }
    return v;
}

argument by_value(VARTYPE type, int which, IDispatch* object, const char* label) {
    return {label, [=](VARIANT& slot, std::vector<std::shared_ptr<VARIANT>>&) { slot = sample(type, which, object); }};
}

// A variable passed by reference: of its own type, or a Variant variable
// as script clients pass them.
argument by_reference(VARTYPE type, int which, IDispatch* object, bool as_variant, const char* label) {
    return {label, [=](VARIANT& slot, std::vector<std::shared_ptr<VARIANT>>& storage) {
                auto variable = std::shared_ptr<VARIANT>(new VARIANT(sample(type, which, object)), [](VARIANT* v) {
                    VariantClear(v);
                    delete v;
                });
                storage.push_back(variable);
                V_VT(&slot) = VT_BYREF | V_VT(variable.get());
                V_BYREF(&slot) = &V_UI1(variable.get());
                if (as_variant || type == VT_VARIANT) {
                    V_VT(&slot) = VT_BYREF | VT_VARIANT;
                    V_VARIANTREF(&slot) = variable.get();
                }
            }};
}

// A record of the library, of numbers only: no member takes one.
argument record(IRecordInfo* info, bool in_variable) {
    return {in_variable ? "record in a variant variable" : "record",
            [=](VARIANT& slot, std::vector<std::shared_ptr<VARIANT>>& storage) {
                V_VT(&slot) = VT_RECORD;
                V_RECORDINFO(&slot) = info;
                V_RECORD(&slot) = info->RecordCreate();
                info->AddRef();
                if (!in_variable) return;
                storage.emplace_back(new VARIANT(slot), [](VARIANT* v) { VariantClear(v), delete v; });
                V_VT(&slot) = VT_BYREF | VT_VARIANT;
                V_VARIANTREF(&slot) = storage.back().get();
            }};
}

argument missing() {
    return {"missing", [](VARIANT& slot, std::vector<std::shared_ptr<VARIANT>>&) {
                V_VT(&slot) = VT_ERROR;
                V_ERROR(&slot) = DISP_E_PARAMNOTFOUND;
            }};
}

// Shapes where Wine's ITypeInfo::Invoke does not do what Windows documents,
// so that its answer cannot serve as the reference; ours is checked against
// the documented behaviour instead.
enum class departure {
    none,
    // An argument that is no object of the declared interface: Windows
    // refuses it with DISP_E_TYPEMISMATCH; Wine hands it to the member.
    not_the_declared_interface,
    // Ours, deliberately, for script clients: a Variant variable for a typed
    // ByRef parameter is converted and written back; the type-library path
    // refuses it with DISP_E_TYPEMISMATCH.
    variant_variable_converted,
    // Also ours: a value for a ByRef Variant parameter goes to the member in
    // a temporary; Wine refuses it with DISP_E_TYPEMISMATCH.
    value_for_variant_reference,
    // A record where another type is declared: Windows refuses it with
    // DISP_E_TYPEMISMATCH; 64-bit Wine crashes, so its path never gets one.
    record_for_another_type,
};

struct shape {
    std::string label;
    std::vector<argument> arguments;
    departure from_wine = departure::none;
    unsigned parameter = 0;  // the parameter the departure concerns
};

// The battery for one member: every parameter given each way in turn while
// the others get their natural values, plus counts that are wrong.
std::vector<shape> battery(const member_entry& member, REFIID own_interface, IDispatch* same_class,
                           IDispatch* other_class, IRecordInfo* a_record) {
    std::vector<shape> shapes;
    auto natural = [&](unsigned k) {
        const member_param& p = member.params[k];
        return p.by_reference ? by_reference(p.type, 0, same_class, false, "variable")
                              : by_value(p.type, 0, same_class, "natural");
    };
    auto all_natural = [&] {
        std::vector<argument> args;
        for (unsigned k = 0; k < member.param_count; ++k) args.push_back(natural(k));
        return args;
    };
    shape natural_shape{"natural", all_natural()};
    for (unsigned k = 0; k < member.param_count; ++k) {
        if (member.params[k].interface_id && !IsEqualIID(*member.params[k].interface_id, own_interface)) {
            natural_shape.from_wine = departure::not_the_declared_interface;
            natural_shape.parameter = k;
        }
    }
    shapes.push_back(natural_shape);
    for (unsigned k = 0; k < member.param_count; ++k) {
        const member_param& p = member.params[k];
        std::vector<argument> variants = {
            by_value(p.type, 0, same_class, "value"),  by_value(p.type, 1, same_class, "numeric text"),
            by_value(p.type, 2, same_class, "another number type"), by_value(p.type, 3, same_class, "text"),
            by_value(p.type, 4, same_class, "large"), by_value(p.type, 5, same_class, "null"),
            by_reference(p.type, 0, same_class, true, "variant variable"),
            by_reference(p.type, 1, same_class, true, "variant variable of another type"), missing(),
            record(a_record, false), record(a_record, true),
        };
        if (p.type == VT_DISPATCH) {
            variants.push_back(by_value(VT_DISPATCH, 0, other_class, "object of another class"));
            variants.push_back(by_value(VT_DISPATCH, 0, nullptr, "nothing"));
        }
        for (const argument& a : variants) {
            std::vector<argument> args = all_natural();
            args[k] = a;
            shape made{"parameter " + std::to_string(k) + " " + a.label, args};
            made.parameter = k;
            // Objects of the class under test serve where its own interface
            // is declared; any other interface (a picture) they do not.
            const bool fits = p.interface_id && IsEqualIID(*p.interface_id, own_interface);
            const bool right_object = (fits && (a.label == "value" || a.label == "variant variable")) ||
                                      a.label == "missing" || a.label == "nothing";
            if (a.label.rfind("record", 0) == 0)
                made.from_wine = departure::record_for_another_type;
            else if (p.interface_id && !right_object)
                made.from_wine = departure::not_the_declared_interface;
            else if (p.by_reference && p.type != VT_VARIANT && a.label.rfind("variant variable", 0) == 0)
                made.from_wine = departure::variant_variable_converted;
            else if (p.by_reference && p.type == VT_VARIANT && a.label.rfind("variant variable", 0) != 0)
                made.from_wine = departure::value_for_variant_reference;
            shapes.push_back(made);
        }
    }
    // Trailing optional parameters left out.
    std::vector<argument> args = all_natural();
    while (!args.empty() && member.params[args.size() - 1].optional) {
        args.pop_back();
        shapes.push_back({"without trailing optionals", args});
    }
    std::vector<argument> too_many = all_natural();
    too_many.push_back(by_value(VT_I4, 0, nullptr, "extra"));
    shapes.push_back({"one argument too many", too_many});
    if (member.param_count > 0) {
        std::vector<argument> too_few = all_natural();
        too_few.pop_back();
        shapes.push_back({"one argument too few", too_few});
    }
    return shapes;
}

std::vector<WORD> flag_sets(INVOKEKIND kind) {
    switch (kind) {
    case INVOKE_FUNC: return {DISPATCH_METHOD, DISPATCH_METHOD | DISPATCH_PROPERTYGET, DISPATCH_PROPERTYPUT};
    case INVOKE_PROPERTYGET: return {DISPATCH_PROPERTYGET, DISPATCH_METHOD | DISPATCH_PROPERTYGET, DISPATCH_PROPERTYPUT};
    default: return {DISPATCH_PROPERTYPUT, DISPATCH_PROPERTYPUTREF, DISPATCH_METHOD};
    }
}

com_ptr<IDispatch> make(const class_entry& entry) { return create<IDispatch>(*entry.clsid, IID_IDispatch); }

// cDIBSection.CreateDIB hands a new section to its caller through hDib: the
// two paths get different handles, so the comparison sees only whether one
// came, and the test deletes it as its caller must.
written_back_hook settle_for(const class_entry& entry, const member_entry& member) {
    if (std::wstring(entry.name) == L"cDIBSection" && std::wstring(member.name) == L"CreateDIB") {
        return [](VARIANT& variable) {
            if (V_VT(&variable) != VT_I4 || V_I4(&variable) == 0) return;
            DeleteObject(reinterpret_cast<HGDIOBJ>(static_cast<LONG_PTR>(V_I4(&variable))));
            V_I4(&variable) = -1;
        };
    }
    return {};
}

bool reaches(WORD flags, const member_entry& e) {
    return (e.invoke_kind == INVOKE_FUNC && (flags & DISPATCH_METHOD)) ||
           (e.invoke_kind == INVOKE_PROPERTYGET && (flags & DISPATCH_PROPERTYGET)) ||
           (e.invoke_kind == INVOKE_PROPERTYPUT && (flags & DISPATCH_PROPERTYPUT)) ||
           (e.invoke_kind == INVOKE_PROPERTYPUTREF && (flags & DISPATCH_PROPERTYPUTREF));
}

// Whether no member that a call with these flags reaches takes this many
// arguments (a property's get and put share a DISPID).
bool more_than_any_takes(const interface_members& members, DISPID id, WORD flags, size_t count) {
    for (unsigned m = 0; m < members.count; ++m) {
        const member_entry& e = members.members[m];
        if (e.dispid == id && reaches(flags, e) && count <= e.param_count) return false;
    }
    return true;
}

TEST(DispatchDifferential, EveryMemberAgreesWithTheTypeLibraryPath) {
    // cDIBSection.CopyToClipboard shows a box for most shapes; with a
    // display it would wait for a user.
    box_dismisser boxes;
    com_ptr<IDispatch> other_class = create<IDispatch>(*class_table_begin()->clsid, IID_IDispatch);
    com_ptr<ITypeLib> library;
    com_ptr<ITypeInfo> record_info;
    com_ptr<IRecordInfo> a_record;
    ASSERT_TRUE(SUCCEEDED(LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put())) &&
                SUCCEEDED(library->GetTypeInfoOfGuid(GUID_Veltrax_point_transform, record_info.put())) &&
                SUCCEEDED(GetRecordInfoFromTypeInfo(record_info.get(), a_record.put())));
    unsigned compared = 0;
    for (const class_entry& entry : class_table()) {
        const interface_members& members = *entry.members;
        for (unsigned m = 0; m < members.count; ++m) {
            const member_entry& member = members.members[m];
            const std::string name = narrow(entry.name) + "." + narrow(member.name);
            for (WORD flags : flag_sets(member.invoke_kind)) {
                // Both paths start from a new instance in the same state.
                com_ptr<IDispatch> ours_object = make(entry), reference_object = make(entry), same_class = make(entry);
                com_ptr<ITypeInfo> info;
                ASSERT_EQ(S_OK, reference_object->GetTypeInfo(0, 0, info.put()));
                com_ptr<IUnknown> vtable;
                ASSERT_EQ(S_OK, reference_object->QueryInterface(*entry.interface_id, vtable.put_void()));
                const invoker ours = [&](DISPID id, WORD f, DISPPARAMS* p, VARIANT* r, EXCEPINFO* e, UINT* a) {
                    return ours_object->Invoke(id, IID_NULL, 0, f, p, r, e, a);
                };
                const invoker reference = [&](DISPID id, WORD f, DISPPARAMS* p, VARIANT* r, EXCEPINFO* e, UINT* a) {
                    return info->Invoke(vtable.get(), id, f, p, r, e, a);
                };
                const bool named_put = flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF);
                const written_back_hook settle = settle_for(entry, member);
                for (const shape& s :
                     battery(member, *entry.interface_id, same_class.get(), other_class.get(), a_record.get())) {
                    if (s.from_wine == departure::record_for_another_type && !reaches(flags, member)) continue;
                    const std::string label = name + " flags " + std::to_string(flags) + ", " + s.label;
                    const call_outcome actual = call(ours, member.dispid, flags, s.arguments, named_put, settle);
                    // An argument of another interface shows only where the call
                    // reaches the member; the conversions of ours also where a
                    // property's other half, sharing the DISPID, is reached.
                    departure from_wine = s.from_wine;
                    if (from_wine == departure::not_the_declared_interface && !reaches(flags, member))
                        from_wine = departure::none;
                    if (from_wine == departure::not_the_declared_interface ||
                        from_wine == departure::record_for_another_type) {
                        EXPECT_EQ(hex(DISP_E_TYPEMISMATCH), hex(actual.hr)) << label;
                        EXPECT_EQ(s.arguments.size() - 1 - s.parameter, actual.argument_error) << label;
                    } else if (from_wine != departure::none) {
                        EXPECT_NE(hex(DISP_E_TYPEMISMATCH), hex(actual.hr)) << label;
                        EXPECT_TRUE(from_wine == departure::value_for_variant_reference ||
                                    (FAILED(actual.hr) && actual.hr != DISP_E_EXCEPTION) ||
                                    actual.written_back.find(L"vt=8 12") == std::wstring::npos)
                            << label << ": the variable holds a value of the parameter's type afterwards";
                    } else {
                        const call_outcome expected = as_windows_answers(
                            call(reference, member.dispid, flags, s.arguments, named_put, settle), actual, member,
                            flags, s.label, more_than_any_takes(members, member.dispid, flags, s.arguments.size()));
                        EXPECT_EQ(expected, actual) << label;
                    }
                    ++compared;
                }
            }
            // A named argument one past the last parameter names nothing.
            if (member.param_count == 0 || member.invoke_kind == INVOKE_PROPERTYPUT ||
                member.invoke_kind == INVOKE_PROPERTYPUTREF)
                continue;
            com_ptr<IDispatch> object = make(entry);
            VARIANT value, result;
            VariantInit(&value);
            VariantInit(&result);
            DISPID past = static_cast<DISPID>(member.param_count);
            DISPPARAMS params = {&value, &past, 1, 1};
            UINT bad = 99;
            EXPECT_EQ(hex(DISP_E_PARAMNOTFOUND), hex(object->Invoke(member.dispid, IID_NULL, 0, DISPATCH_METHOD | DISPATCH_PROPERTYGET,
                                                                   &params, &result, nullptr, &bad)))
                << name << " with a named argument past its last";
            EXPECT_EQ(0u, bad);
            VariantClear(&result);
        }
    }
    EXPECT_GT(compared, 0u);
}

TEST(DispatchDifferential, NamesResolveLikeTheTypeLibraryAndInvokeTakesIidNullOnly) {
    for (const class_entry& entry : class_table()) {
        com_ptr<IDispatch> object = make(entry);
        DISPPARAMS none = {};
        EXPECT_EQ(hex(DISP_E_UNKNOWNINTERFACE),
                  hex(object->Invoke(DISPID_VALUE, IID_IDispatch, 0, DISPATCH_PROPERTYGET, &none, nullptr, nullptr, nullptr)))
            << narrow(entry.name) << ": Invoke takes only IID_NULL";
        com_ptr<ITypeInfo> info;
        ASSERT_EQ(S_OK, object->GetTypeInfo(0, 0, info.put()));
        std::vector<std::vector<std::wstring>> requests = {{L"NoSuchMember"}, {L""}};
        for (unsigned m = 0; m < entry.members->count; ++m) {
            const member_entry& member = entry.members->members[m];
            std::wstring mixed = member.name;
            for (size_t i = 0; i < mixed.size(); i += 2) mixed[i] = towupper(mixed[i]);
            for (size_t i = 1; i < mixed.size(); i += 2) mixed[i] = towlower(mixed[i]);
            std::vector<std::wstring> request = {mixed};
            for (unsigned k = 0; k < member.param_count; ++k) request.push_back(member.params[k].name);
            requests.push_back(request);
            requests.push_back({member.name, L"noSuchParameter"});
        }
        for (const auto& request : requests) {
            std::vector<std::wstring> copies = request;
            std::vector<LPOLESTR> names;
            for (std::wstring& n : copies) names.push_back(n.data());
            std::vector<DISPID> ours(names.size(), 12345), reference(names.size(), 12345);
            const HRESULT ours_hr = object->GetIDsOfNames(IID_NULL, names.data(), static_cast<UINT>(names.size()), 0,
                                                          ours.data());
            const HRESULT reference_hr =
                DispGetIDsOfNames(info.get(), names.data(), static_cast<UINT>(names.size()), reference.data());
            const std::string label = narrow(entry.name) + " asked for " + narrow(request[0]);
            EXPECT_EQ(hex(reference_hr), hex(ours_hr)) << label;
            EXPECT_EQ(reference, ours) << label;
        }
    }
}

}  // namespace
}  // namespace vx::test
