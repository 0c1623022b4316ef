// Our dispatcher against the platform's ITypeInfo::Invoke: every member of every class, called both ways over
// a battery of argument shapes, gives the same HRESULT, result, write-backs, argument error and exception.
#include "frame/class_table.h"
#include "support/box_dismisser.h"
#include "support/component.h"
#include "vxTypes32_types.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace vx::test {
namespace {

// The reference path resolves imported types through the registry: the VB runtime's stand-in is registered.
class registered_standin : public ::testing::Environment {
    void SetUp() override { ASSERT_EQ(S_OK, LoadTypeLibEx(VX_STANDIN_TYPELIB, REGKIND_REGISTER, com_ptr<ITypeLib>().put())); }
};
const auto* const standin = ::testing::AddGlobalTestEnvironment(new registered_standin);
// An argument as a test describes it, made afresh for each path: the two calls never share storage.
using storage = std::vector<std::shared_ptr<VARIANT>>;
struct argument { std::string label; std::function<void(VARIANT&, storage&)> make; };
struct call_outcome {
    HRESULT hr = S_OK, exception_code = S_OK;
    std::wstring result, written_back, source, description;
    UINT argument_error = 0xFFFF;
    auto tied() const { return std::tie(hr, result, written_back, argument_error, exception_code, source, description); }
    bool operator==(const call_outcome& o) const { return tied() == o.tied(); }
};
std::ostream& operator<<(std::ostream& out, const call_outcome& o) {
    return out << hex(o.hr) << " [" << narrow(o.result) << "] [" << narrow(o.written_back) << "] " << o.argument_error
               << " " << hex(o.exception_code) << " [" << narrow(o.source + L"] [" + o.description) << "]";
}
std::wstring describe(const VARIANT& value) {
    unique_variant plain, as_text;
    VariantCopyInd(plain.get(), const_cast<VARIANT*>(&value));
    const VARTYPE type = V_VT(plain.get());
    const std::wstring text = L"vt=" + std::to_wstring(V_VT(&value));
    if (type == VT_DISPATCH || type == VT_UNKNOWN) return text + (V_UNKNOWN(plain.get()) ? L" object" : L" nothing");
    const bool plain_text = type != VT_EMPTY && type != VT_NULL && !(type & VT_ARRAY) &&
                            SUCCEEDED(VariantChangeType(as_text.get(), plain.get(), 0, VT_BSTR));
    return plain_text ? text + L" " + text_of(V_BSTR(as_text.get())) : text;
}
// Where Wine's ITypeInfo::Invoke departs from what Windows documents, the expectation follows Windows:
// - setting a property that has no put form (or a method) answers DISP_E_MEMBERNOTFOUND, not E_INVALIDARG;
// - more arguments than a method takes answer DISP_E_BADPARAMCOUNT; Wine ignores the surplus and calls the
//   member (or, in 64-bit code, calls it a bad type where the member takes a LongLong by reference);
// - a member that fails leaves the result Empty; Wine writes Nothing;
// - puArgErr names the argument that failed to convert; Wine leaves it unset, so it counts only where set.
call_outcome as_windows_answers(call_outcome wine, const call_outcome& ours, const member_entry& member,
                                WORD flags, const std::string& shape_label, bool more_than_it_takes) {
    if (wine.hr == E_INVALIDARG && (flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) &&
        member.invoke_kind != INVOKE_PROPERTYPUT && member.invoke_kind != INVOKE_PROPERTYPUTREF) wine.hr = DISP_E_MEMBERNOTFOUND;
    if (shape_label == "one argument too many" && more_than_it_takes &&
        (SUCCEEDED(wine.hr) || (sizeof(void*) == 8 && wine.hr == DISP_E_BADVARTYPE))) {
        wine = {DISP_E_BADPARAMCOUNT, S_OK, L"vt=0", ours.written_back, L"", L"", 0xFFFF};  // the member is not called
    }
    if (wine.hr == DISP_E_EXCEPTION && wine.result == L"vt=9 nothing") wine.result = L"vt=0";
    if (wine.argument_error == 0xFFFF) wine.argument_error = ours.argument_error;
    return wine;
}
using invoker = std::function<HRESULT(DISPID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*)>;
using written_back_hook = std::function<void(VARIANT&)>;  // makes a ByRef variable comparable

call_outcome call(const invoker& invoke, DISPID id, WORD flags, const std::vector<argument>& arguments,
                  bool named_put, const written_back_hook& settle = {}) {
    storage variables;
    std::vector<VARIANT> reversed(arguments.size(), VARIANT{});  // Empty
    for (size_t i = 0; i < arguments.size(); ++i) arguments[i].make(reversed[arguments.size() - 1 - i], variables);
    named_put = named_put && !reversed.empty();  // a named put argument needs an argument to name
    DISPID put_id = DISPID_PROPERTYPUT;
    DISPPARAMS params = {reversed.data(), named_put ? &put_id : nullptr, static_cast<UINT>(reversed.size()), named_put};
    unique_variant result;
    EXCEPINFO exception = {};
    call_outcome outcome;
    outcome.hr = invoke(id, flags, &params, result.get(), &exception, &outcome.argument_error);
    if (outcome.hr != DISP_E_TYPEMISMATCH && outcome.hr != DISP_E_OVERFLOW && outcome.hr != DISP_E_PARAMNOTFOUND)
        outcome.argument_error = 0xFFFF;  // only meaningful for argument failures
    if (exception.pfnDeferredFillIn) exception.pfnDeferredFillIn(&exception);
    const unique_bstr source(exception.bstrSource), description(exception.bstrDescription), help(exception.bstrHelpFile);
    outcome.exception_code = exception.scode ? exception.scode : exception.wCode;
    outcome.source = text_of(source.get()), outcome.description = text_of(description.get()), outcome.result = describe(*result.get());
    for (const auto& variable : variables) {
        if (settle) settle(*variable);
        outcome.written_back += describe(*variable) + L";";
    }
    for (VARIANT& v : reversed) VariantClear(&v);
    return outcome;
}
// A type's natural value (which 0), then numeric text, another number type, text, a large number and Null.
VARIANT sample(VARTYPE type, int which, IDispatch* object) {
    VARIANT v;
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
    case VT_VARIANT: V_VT(&v) = VT_I4, V_I4(&v) = 7; break;
    case VT_DISPATCH: V_DISPATCH(&v) = object, object ? object->AddRef() : 0; break;
    default: V_VT(&v) = VT_EMPTY; break;
    }
    return v;
}
argument by_value(VARTYPE type, int which, IDispatch* object, const char* label) {
    return {label, [=](VARIANT& slot, storage&) { slot = sample(type, which, object); }};
}
// A variable owned by the storage, cleared when the call is over.
VARIANT* variable(storage& variables, VARIANT value) {
    variables.emplace_back(new VARIANT(value), [](VARIANT* v) { VariantClear(v), delete v; });
    return variables.back().get();
}
// A variable passed by reference: of its own type, or a Variant variable as script clients pass them.
argument by_reference(VARTYPE type, int which, IDispatch* object, bool as_variant, const char* label) {
    return {label, [=](VARIANT& slot, storage& variables) {
                VARIANT* held = variable(variables, sample(type, which, object));
                V_VT(&slot) = VT_BYREF | V_VT(held);
                V_BYREF(&slot) = &V_UI1(held);
                if (as_variant || type == VT_VARIANT) V_VT(&slot) = VT_BYREF | VT_VARIANT, V_VARIANTREF(&slot) = held;
            }};
}
// A record of the library, of numbers only: no member takes one.
argument record(IRecordInfo* info, bool in_variable) {
    return {in_variable ? "record in a variant variable" : "record", [=](VARIANT& slot, storage& variables) {
                V_VT(&slot) = VT_RECORD, V_RECORDINFO(&slot) = info, V_RECORD(&slot) = info->RecordCreate(), info->AddRef();
                if (in_variable) V_VARIANTREF(&slot) = variable(variables, slot), V_VT(&slot) = VT_BYREF | VT_VARIANT;
            }};
}
argument missing() { return {"missing", [](VARIANT& slot, storage&) { V_VT(&slot) = VT_ERROR, V_ERROR(&slot) = DISP_E_PARAMNOTFOUND; }}; }
// Shapes where Wine's ITypeInfo::Invoke does not do what Windows documents, so ours is checked against that.
enum class departure {
    none,
    not_the_declared_interface,   // Windows refuses it with DISP_E_TYPEMISMATCH; Wine hands it to the member
    variant_variable_converted,   // ours, for scripts: converted and written back to a typed ByRef; Wine refuses
    value_for_variant_reference,  // ours: goes to a ByRef Variant in a temporary; Wine refuses it
    record_for_another_type,      // Windows refuses it with DISP_E_TYPEMISMATCH; 64-bit Wine crashes
};
// A departure concerns one parameter.
struct shape { std::string label; std::vector<argument> arguments; departure from_wine = departure::none; unsigned parameter = 0; };
// Every parameter given each way in turn while the others get their natural values, and wrong counts.
std::vector<shape> battery(const member_entry& member, REFIID own_interface, IDispatch* same_class,
                           IDispatch* other_class, IRecordInfo* a_record) {
    std::vector<shape> shapes = {{"natural", {}}};
    for (unsigned k = 0; k < member.param_count; ++k) {
        const member_param& p = member.params[k];
        shapes[0].arguments.push_back(p.by_reference ? by_reference(p.type, 0, same_class, false, "variable")
                                                     : by_value(p.type, 0, same_class, "natural"));
        if (p.interface_id && !IsEqualIID(*p.interface_id, own_interface))
            shapes[0].from_wine = departure::not_the_declared_interface, shapes[0].parameter = k;
    }
    const std::vector<argument> natural = shapes[0].arguments;
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
        if (p.type == VT_DISPATCH)
            variants.insert(variants.end(), {by_value(VT_DISPATCH, 0, other_class, "object of another class"),
                                             by_value(VT_DISPATCH, 0, nullptr, "nothing")});
        for (const argument& a : variants) {
            shape made{"parameter " + std::to_string(k) + " " + a.label, natural, departure::none, k};
            made.arguments[k] = a;
            // Objects of the class under test serve where its own interface is declared, not another (a picture).
            const bool fits = p.interface_id && IsEqualIID(*p.interface_id, own_interface);
            const bool right_object = (fits && (a.label == "value" || a.label == "variant variable")) ||
                                      a.label == "missing" || a.label == "nothing";
            const bool variant_variable = a.label.rfind("variant variable", 0) == 0;
            if (a.label.rfind("record", 0) == 0) made.from_wine = departure::record_for_another_type;
            else if (p.interface_id && !right_object) made.from_wine = departure::not_the_declared_interface;
            else if (p.by_reference && p.type != VT_VARIANT && variant_variable) made.from_wine = departure::variant_variable_converted;
            else if (p.by_reference && p.type == VT_VARIANT && !variant_variable) made.from_wine = departure::value_for_variant_reference;
            shapes.push_back(made);
        }
    }
    // Trailing optional parameters left out, and one argument too many or too few.
    std::vector<argument> args = natural;
    while (!args.empty() && member.params[args.size() - 1].optional) {
        args.pop_back();
        shapes.push_back({"without trailing optionals", args});
    }
    shapes.push_back({"one argument too many", natural});
    shapes.back().arguments.push_back(by_value(VT_I4, 0, nullptr, "extra"));
    if (member.param_count > 0) shapes.push_back({"one argument too few", {natural.begin(), natural.end() - 1}});
    return shapes;
}
std::vector<WORD> flag_sets(INVOKEKIND kind) {
    if (kind == INVOKE_FUNC) return {DISPATCH_METHOD, DISPATCH_METHOD | DISPATCH_PROPERTYGET, DISPATCH_PROPERTYPUT};
    if (kind == INVOKE_PROPERTYGET) return {DISPATCH_PROPERTYGET, DISPATCH_METHOD | DISPATCH_PROPERTYGET, DISPATCH_PROPERTYPUT};
    return {DISPATCH_PROPERTYPUT, DISPATCH_PROPERTYPUTREF, DISPATCH_METHOD};
}
com_ptr<IDispatch> make(const class_entry& entry) { return create<IDispatch>(*entry.clsid, IID_IDispatch); }
// cDIBSection.CreateDIB hands its caller a new section through hDib: the paths get different handles, so
// the comparison sees only whether one came, and the test deletes it as its caller must.
written_back_hook settle_for(const class_entry& entry, const member_entry& member) {
    if (std::wstring(entry.name) != L"cDIBSection" || std::wstring(member.name) != L"CreateDIB") return {};
    return [](VARIANT& variable) {
        if (V_VT(&variable) != VT_I4 || V_I4(&variable) == 0) return;
        DeleteObject(reinterpret_cast<HGDIOBJ>(static_cast<LONG_PTR>(V_I4(&variable))));
        V_I4(&variable) = -1;
    };
}
// INVOKE_FUNC, _PROPERTYGET, _PROPERTYPUT and _PROPERTYPUTREF have the bits of the DISPATCH_ flags that reach them.
bool reaches(WORD flags, const member_entry& e) { return flags & e.invoke_kind; }
// Whether no member these flags reach takes this many arguments (a property's get and put share a DISPID).
bool more_than_any_takes(const interface_members& members, DISPID id, WORD flags, size_t count) {
    return std::none_of(members.members, members.members + members.count,
                        [&](const member_entry& e) { return e.dispid == id && reaches(flags, e) && count <= e.param_count; });
}

TEST(DispatchDifferential, EveryMemberAgreesWithTheTypeLibraryPath) {
    box_dismisser boxes;  // cDIBSection.CopyToClipboard shows a box for most shapes
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
                com_ptr<IDispatch> ours_object = make(entry), reference_object = make(entry), same_class = make(entry);  // alike
                com_ptr<ITypeInfo> info;
                com_ptr<IUnknown> vtable;
                ASSERT_TRUE(reference_object->GetTypeInfo(0, 0, info.put()) == S_OK &&
                            reference_object->QueryInterface(*entry.interface_id, vtable.put_void()) == S_OK);
                const invoker ours = [&](DISPID id, WORD f, auto... rest) { return ours_object->Invoke(id, IID_NULL, 0, f, rest...); };
                const invoker reference = [&](auto... all) { return info->Invoke(vtable.get(), all...); };
                const bool named_put = flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF);
                const written_back_hook settle = settle_for(entry, member);
                for (const shape& s : battery(member, *entry.interface_id, same_class.get(), other_class.get(), a_record.get())) {
                    // An argument of another interface shows only where the call reaches the member; the conversions
                    // of ours also where a property's other half, sharing the DISPID, is reached.
                    departure from_wine = s.from_wine;
                    if (from_wine == departure::record_for_another_type && !reaches(flags, member)) continue;
                    if (from_wine == departure::not_the_declared_interface && !reaches(flags, member)) from_wine = departure::none;
                    const std::string label = name + " flags " + std::to_string(flags) + ", " + s.label;
                    const call_outcome actual = call(ours, member.dispid, flags, s.arguments, named_put, settle);
                    if (from_wine == departure::not_the_declared_interface || from_wine == departure::record_for_another_type) {
                        EXPECT_EQ(hex(DISP_E_TYPEMISMATCH), hex(actual.hr)) << label;
                        EXPECT_EQ(s.arguments.size() - 1 - s.parameter, actual.argument_error) << label;
                    } else if (from_wine != departure::none) {
                        EXPECT_NE(hex(DISP_E_TYPEMISMATCH), hex(actual.hr)) << label;
                        EXPECT_TRUE(from_wine == departure::value_for_variant_reference ||
                                    (FAILED(actual.hr) && actual.hr != DISP_E_EXCEPTION) ||
                                    actual.written_back.find(L"vt=8 12") == std::wstring::npos)
                            << label << ": the variable holds a value of the parameter's type afterwards";
                    } else {
                        const bool too_many = more_than_any_takes(members, member.dispid, flags, s.arguments.size());
                        const call_outcome wine = call(reference, member.dispid, flags, s.arguments, named_put, settle);
                        EXPECT_EQ(as_windows_answers(wine, actual, member, flags, s.label, too_many), actual) << label;
                    }
                    ++compared;
                }
            }
        }
    }
    EXPECT_GT(compared, 0u);
}

TEST(DispatchDifferential, NamesResolveLikeTheTypeLibraryAndInvokeTakesIidNullOnly) {
    for (const class_entry& entry : class_table()) {
        com_ptr<IDispatch> object = make(entry);
        DISPPARAMS none = {};
        EXPECT_EQ(hex(DISP_E_UNKNOWNINTERFACE), hex(object->Invoke(DISPID_VALUE, IID_IDispatch, 0, DISPATCH_PROPERTYGET, &none,
                                                                   nullptr, nullptr, nullptr))) << narrow(entry.name) << ": IID_NULL only";
        com_ptr<ITypeInfo> info;
        ASSERT_EQ(S_OK, object->GetTypeInfo(0, 0, info.put()));
        std::vector<std::vector<std::wstring>> requests = {{L"NoSuchMember"}, {L""}};
        for (unsigned m = 0; m < entry.members->count; ++m) {
            const member_entry& member = entry.members->members[m];
            std::wstring mixed = member.name;  // in alternating case
            for (size_t i = 0; i < mixed.size(); ++i) mixed[i] = i % 2 ? towlower(mixed[i]) : towupper(mixed[i]);
            requests.push_back({mixed});
            for (unsigned k = 0; k < member.param_count; ++k) requests.back().push_back(member.params[k].name);
            requests.push_back({member.name, L"noSuchParameter"});
        }
        for (std::vector<std::wstring> request : requests) {
            std::vector<LPOLESTR> names;
            for (std::wstring& n : request) names.push_back(n.data());
            const UINT count = static_cast<UINT>(names.size());
            std::vector<DISPID> ours(count, 12345), reference(count, 12345);
            const HRESULT ours_hr = object->GetIDsOfNames(IID_NULL, names.data(), count, 0, ours.data());
            const HRESULT reference_hr = DispGetIDsOfNames(info.get(), names.data(), count, reference.data());
            EXPECT_EQ(std::make_pair(hex(reference_hr), reference), std::make_pair(hex(ours_hr), ours))
                << narrow(entry.name) << " asked for " << narrow(request[0]);
        }
    }
}

}  // namespace
}  // namespace vx::test
