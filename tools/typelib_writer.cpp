// Writes a type library from the tables that gen_types.py generates, through
// oleaut32's ICreateTypeLib2, then reads the file back and compares every
// fact with the tables. Run under Wine at build time.
//
//   typelib_writer standin OUT.tlb            the stand-in VB runtime library
//   typelib_writer library OUT.tlb STANDIN.tlb
//   typelib_writer verify TLB STANDIN.tlb     read back and compare only
//
// Exit status 0 when the file is written and matches; otherwise every
// difference is printed and the status is 1.
#include "tools/msft_patch.h"
#include "tools/typelib_model.h"

#include "frame/handles.h"

#include <oleauto.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace typelib_data {
using namespace typelib_model;
#include "typelib_tables.inc"
}  // namespace typelib_data

namespace {

using namespace typelib_model;
using vx::com_ptr;
using vx::unique_bstr;

// Build tools pass Unix paths; Wine maps drive Z: to the Unix root.
std::wstring windows_path(const wchar_t* path) {
    std::wstring result = path;
    if (!result.empty() && result[0] == L'/') result = L"Z:" + result;
    for (wchar_t& c : result)
        if (c == L'/') c = L'\\';
    return result;
}

std::string narrow(const wchar_t* text) {
    std::string out;
    for (; text && *text; ++text) out += *text < 128 ? static_cast<char>(*text) : '?';
    return out;
}

std::string guid_text(const GUID& g) {
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  static_cast<unsigned long>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1],
                  g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return buffer;
}

// Failures of the writing steps stop the program with the step named.
struct step_failed {
    std::string what;
    HRESULT hr;
};

void check(HRESULT hr, const std::string& what) {
    if (FAILED(hr)) throw step_failed{what, hr};
}

// ------------------------------------------------------------------ writing

class library_writer {
public:
    library_writer(const library_entry& library, std::vector<com_ptr<ITypeLib>> imports)
        : library_(library), imports_(std::move(imports)) {}

    void write(const std::wstring& path) {
        check(CreateTypeLib2(library_.syskind, path.c_str(), creator_.put()), "CreateTypeLib2");
        check(creator_->SetName(const_cast<LPOLESTR>(library_.name)), "SetName");
        check(creator_->SetGuid(library_.guid), "SetGuid");
        check(creator_->SetVersion(library_.major, library_.minor), "SetVersion");
        check(creator_->SetLcid(library_.lcid), "SetLcid");
        check(creator_->SetLibFlags(0), "SetLibFlags");

        // Every type exists before any refers to another.
        for (int i = 0; i < library_.type_count; ++i) {
            const type_entry& type = library_.types[i];
            com_ptr<ICreateTypeInfo> info;
            check(creator_->CreateTypeInfo(const_cast<LPOLESTR>(type.name), tkind_of(type.kind), info.put()),
                  "CreateTypeInfo " + narrow(type.name));
            infos_.push_back(info);
        }
        for (int i = 0; i < library_.type_count; ++i) describe(i);
        laid_out_.assign(library_.type_count, false);
        for (int i = 0; i < library_.type_count; ++i) lay_out(i);
        check(creator_->SaveAllChanges(), "SaveAllChanges");
    }

private:
    static TYPEKIND tkind_of(type_kind kind) {
        switch (kind) {
        case type_kind::dual_interface: return TKIND_INTERFACE;
        case type_kind::dispinterface: return TKIND_DISPATCH;
        case type_kind::coclass: return TKIND_COCLASS;
        case type_kind::alias: return TKIND_ALIAS;
        case type_kind::record: return TKIND_RECORD;
        case type_kind::enumeration: return TKIND_ENUM;
        }
        return TKIND_MAX;
    }

    com_ptr<ITypeInfo> referenced(int reference) {
        const type_reference& r = library_.references[reference];
        com_ptr<ITypeInfo> info;
        if (r.local_type >= 0) {
            info = infos_[r.local_type].query<ITypeInfo>(IID_ITypeInfo);
            if (!info) throw step_failed{"ITypeInfo of a new type", E_NOINTERFACE};
        } else {
            check(imports_[r.import]->GetTypeInfoOfGuid(r.guid, info.put()),
                  "imported type " + guid_text(r.guid));
        }
        return info;
    }

    HREFTYPE add_reference(ICreateTypeInfo* info, const com_ptr<ITypeInfo>& target) {
        HREFTYPE href = 0;
        check(info->AddRefTypeInfo(target.get(), &href), "AddRefTypeInfo");
        return href;
    }

    com_ptr<ITypeInfo> idispatch() {
        for (const auto& library : imports_) {
            com_ptr<ITypeInfo> info;
            if (library && SUCCEEDED(library->GetTypeInfoOfGuid(IID_IDispatch, info.put()))) return info;
        }
        throw step_failed{"no imported library holds IDispatch", TYPE_E_ELEMENTNOTFOUND};
    }

    // Builds the TYPEDESC of a node; the storage lives in this writer.
    TYPEDESC typedesc(ICreateTypeInfo* info, int node_index) {
        const type_node& node = library_.nodes[node_index];
        TYPEDESC desc{};
        desc.vt = node.vt;
        switch (node.vt) {
        case VT_PTR:
        case VT_SAFEARRAY:
            storage_.push_back(typedesc(info, node.element));
            desc.lptdesc = &storage_.back();
            break;
        case VT_CARRAY: {
            auto& block = arrays_.emplace_back(
                sizeof(ARRAYDESC) + sizeof(SAFEARRAYBOUND) * (node.dimensions > 0 ? node.dimensions - 1 : 0));
            auto* array = reinterpret_cast<ARRAYDESC*>(block.data());
            array->tdescElem = typedesc(info, node.element);
            array->cDims = static_cast<USHORT>(node.dimensions);
            for (int d = 0; d < node.dimensions; ++d) {
                array->rgbounds[d].cElements = library_.bounds[node.first_bound + d].elements;
                array->rgbounds[d].lLbound = library_.bounds[node.first_bound + d].lower;
            }
            desc.lpadesc = array;
            break;
        }
        case VT_USERDEFINED:
            desc.hreftype = add_reference(info, referenced(node.reference));
            break;
        default:
            break;
        }
        return desc;
    }

    static void set_default(VARIANT* value, const default_value& d) {
        VariantInit(value);
        V_VT(value) = d.vt;
        switch (d.vt) {
        case VT_BOOL: V_BOOL(value) = static_cast<VARIANT_BOOL>(d.integer); break;
        case VT_I2: V_I2(value) = static_cast<SHORT>(d.integer); break;
        case VT_UI1: V_UI1(value) = static_cast<BYTE>(d.integer); break;
        case VT_R4: V_R4(value) = static_cast<float>(d.real); break;
        case VT_R8: V_R8(value) = d.real; break;
        case VT_DATE: V_DATE(value) = d.real; break;
        case VT_BSTR: V_BSTR(value) = SysAllocString(d.text); break;
        default: V_VT(value) = VT_I4; V_I4(value) = d.integer; break;
        }
    }

    void describe(int index) {
        const type_entry& type = library_.types[index];
        ICreateTypeInfo* info = infos_[index].get();
        const std::string name = narrow(type.name);
        check(info->SetGuid(type.guid), "SetGuid " + name);
        check(info->SetVersion(type.major, type.minor), "SetVersion " + name);
        switch (type.kind) {
        case type_kind::dual_interface:
        case type_kind::dispinterface: {
            check(info->AddImplType(0, add_reference(info, idispatch())), "AddImplType " + name);
            check(info->SetTypeFlags(type.flags), "SetTypeFlags " + name);
            for (int f = 0; f < type.funcs; ++f) add_func(info, type, f);
            break;
        }
        case type_kind::coclass:
            for (int i = 0; i < type.impls; ++i) {
                const impl_entry& impl = library_.impls[type.first_impl + i];
                check(info->AddImplType(i, add_reference(info, referenced(impl.reference))),
                      "AddImplType " + name);
                check(info->SetImplTypeFlags(i, impl.flags), "SetImplTypeFlags " + name);
            }
            // After the implemented interfaces: setting the flags first
            // lets the writer add flags of its own.
            check(info->SetTypeFlags(type.flags), "SetTypeFlags " + name);
            break;
        case type_kind::alias: {
            TYPEDESC desc = typedesc(info, type.alias_type);
            check(info->SetTypeDescAlias(&desc), "SetTypeDescAlias " + name);
            check(info->SetTypeFlags(type.flags), "SetTypeFlags " + name);
            break;
        }
        case type_kind::record:
        case type_kind::enumeration:
            check(info->SetAlignment(static_cast<WORD>(type.alignment)), "SetAlignment " + name);
            if (type.flags) check(info->SetTypeFlags(type.flags), "SetTypeFlags " + name);
            for (int v = 0; v < type.vars; ++v) add_var(info, type, v);
            break;
        }
    }

    void add_func(ICreateTypeInfo* info, const type_entry& type, int f) {
        const func_entry& func = library_.funcs[type.first_func + f];
        const std::string name = narrow(type.name) + "." + narrow(func.name);
        std::vector<ELEMDESC> params(func.params);
        std::vector<vx::unique_variant> defaults(func.params);
        std::vector<PARAMDESCEX> extras(func.params);
        std::vector<const wchar_t*> names{func.name};
        for (int p = 0; p < func.params; ++p) {
            const param_entry& param = library_.params[func.first_param + p];
            ELEMDESC& elem = params[p];
            elem = ELEMDESC{};
            elem.tdesc = typedesc(info, param.type);
            elem.paramdesc.wParamFlags = param.flags;
            if (param.value.vt != VT_EMPTY) {
                extras[p].cBytes = sizeof(PARAMDESCEX);
                set_default(&extras[p].varDefaultValue, param.value);
                elem.paramdesc.pparamdescex = &extras[p];
            }
            if (param.name) names.push_back(param.name);
        }
        FUNCDESC desc{};
        desc.memid = func.id;
        desc.funckind = type.kind == type_kind::dual_interface ? FUNC_PUREVIRTUAL : FUNC_DISPATCH;
        desc.invkind = func.invoke;
        desc.callconv = CC_STDCALL;
        desc.cParams = static_cast<SHORT>(func.params);
        desc.cParamsOpt = static_cast<SHORT>(func.optional);
        desc.oVft = func.vtable_slot >= 0 ? static_cast<SHORT>(func.vtable_slot * pointer_size(library_)) : 0;
        desc.elemdescFunc.tdesc.vt = type.kind == type_kind::dual_interface ? VT_HRESULT : VT_VOID;
        desc.lprgelemdescParam = params.data();
        const HRESULT hr = info->AddFuncDesc(f, &desc);
        for (auto& extra : extras) VariantClear(&extra.varDefaultValue);
        check(hr, "AddFuncDesc " + name);
        check(info->SetFuncAndParamNames(f, const_cast<LPOLESTR*>(names.data()), static_cast<UINT>(names.size())),
              "SetFuncAndParamNames " + name);
        if (func.help) check(info->SetFuncDocString(f, const_cast<LPOLESTR>(func.help)), "SetFuncDocString " + name);
    }

    void add_var(ICreateTypeInfo* info, const type_entry& type, int v) {
        const var_entry& var = library_.vars[type.first_var + v];
        const std::string name = narrow(type.name) + "." + narrow(var.name);
        VARDESC desc{};
        VARIANT constant;
        VariantInit(&constant);
        desc.memid = var.id;
        desc.elemdescVar.tdesc = typedesc(info, var.type);
        if (type.kind == type_kind::enumeration) {
            desc.varkind = VAR_CONST;
            V_VT(&constant) = VT_I4;
            V_I4(&constant) = var.value;
            desc.lpvarValue = &constant;
        } else {
            // The writer's LayOut leaves record offsets at 0: they come from
            // the description's own layout, which the generator checked.
            desc.varkind = VAR_PERINSTANCE;
            desc.oInst = static_cast<ULONG>(var.value);
        }
        check(info->AddVarDesc(v, &desc), "AddVarDesc " + name);
        check(info->SetVarName(v, const_cast<LPOLESTR>(var.name)), "SetVarName " + name);
        if (var.doc) check(info->SetVarDocString(v, const_cast<LPOLESTR>(var.doc)), "SetVarDocString " + name);
    }

    // A record's size depends on the records it holds: those come first.
    void lay_out(int index) {
        if (laid_out_[index]) return;
        laid_out_[index] = true;
        const type_entry& type = library_.types[index];
        for (int v = 0; v < type.vars; ++v) {
            int node = library_.vars[type.first_var + v].type;
            while (library_.nodes[node].vt == VT_CARRAY) node = library_.nodes[node].element;
            if (library_.nodes[node].vt == VT_USERDEFINED) {
                const int local = library_.references[library_.nodes[node].reference].local_type;
                if (local >= 0) lay_out(local);
            }
        }
        check(infos_[index]->LayOut(), "LayOut " + narrow(type.name));
    }

    const library_entry& library_;
    std::vector<com_ptr<ITypeLib>> imports_;
    com_ptr<ICreateTypeLib2> creator_;
    std::vector<com_ptr<ICreateTypeInfo>> infos_;
    std::vector<bool> laid_out_;
    std::deque<TYPEDESC> storage_;
    std::deque<std::vector<unsigned char>> arrays_;
};

// -------------------------------------------------------------- reading back

class verifier {
public:
    explicit verifier(const library_entry& library) : library_(library), slot_(pointer_size(library)) {}

    int differences() const { return differences_; }

    void verify(const std::wstring& path) {
        com_ptr<ITypeLib> loaded;
        const HRESULT hr = LoadTypeLibEx(path.c_str(), REGKIND_NONE, loaded.put());
        if (FAILED(hr)) {
            differ("the library", "loads", "LoadTypeLibEx failed " + hex(hr));
            return;
        }
        TLIBATTR* attr = nullptr;
        check(loaded->GetLibAttr(&attr), "GetLibAttr");
        expect("library", "LIBID", guid_text(library_.guid), guid_text(attr->guid));
        expect("library", "version", version(library_.major, library_.minor),
               version(attr->wMajorVerNum, attr->wMinorVerNum));
        expect("library", "lcid", hex(library_.lcid), hex(attr->lcid));
        expect("library", "syskind", number(library_.syskind), number(attr->syskind));
        expect("library", "flags", hex(0), hex(attr->wLibFlags & ~LIBFLAG_FHASDISKIMAGE));
        loaded->ReleaseTLibAttr(attr);
        unique_bstr name, doc, help_file;
        DWORD help_context = 0;
        check(loaded->GetDocumentation(-1, name.put(), doc.put(), &help_context, help_file.put()),
              "GetDocumentation");
        expect("library", "name", narrow(library_.name), narrow(name.get()));
        expect("library", "help string", "", narrow(doc.get()));
        expect("library", "help file", "", narrow(help_file.get()));
        expect("library", "help context", "0", number(help_context));

        const UINT count = loaded->GetTypeInfoCount();
        expect("library", "type count", number(library_.type_count), number(count));
        // Each type found by its GUID, so that a type out of place is one
        // difference rather than one for every type after it.
        for (int i = 0; i < library_.type_count; ++i) {
            const type_entry& type = library_.types[i];
            const std::string where = "type " + number(i) + " " + narrow(type.name);
            com_ptr<ITypeInfo> info;
            com_ptr<ITypeLib> container;
            UINT index = 0;
            if (FAILED(loaded->GetTypeInfoOfGuid(type.guid, info.put())) ||
                FAILED(info->GetContainingTypeLib(container.put(), &index))) {
                differ(where, "type", "missing");
                continue;
            }
            expect(where, "index", number(i), number(index));
            verify_type(loaded.get(), i, static_cast<int>(index), info.get());
        }
    }

private:
    static std::string number(long long n) { return std::to_string(n); }
    static std::string hex(unsigned long long n) {
        char buffer[24];
        std::snprintf(buffer, sizeof buffer, "0x%llX", n);
        return buffer;
    }
    static std::string version(int major, int minor) { return number(major) + "." + number(minor); }

    void differ(const std::string& where, const std::string& fact, const std::string& found) {
        std::printf("typelib: %s: %s: %s\n", where.c_str(), fact.c_str(), found.c_str());
        ++differences_;
    }
    void expect(const std::string& where, const std::string& fact, const std::string& wanted,
                const std::string& found) {
        if (wanted != found) differ(where, fact, "expected " + wanted + ", found " + found);
    }

    static const char* kind_name(TYPEKIND kind) {
        static const char* const names[] = {"enum", "record", "module", "interface",
                                            "dispinterface", "coclass", "alias", "union"};
        return kind >= 0 && kind < TKIND_MAX ? names[kind] : "?";
    }

    // The expected type of a node, written the way describe() writes a found one.
    std::string expected_type(int node_index) const {
        const type_node& node = library_.nodes[node_index];
        switch (node.vt) {
        case VT_PTR: return expected_type(node.element) + "*";
        case VT_SAFEARRAY: return "SAFEARRAY(" + expected_type(node.element) + ")";
        case VT_CARRAY: {
            std::string text = expected_type(node.element);
            for (int d = 0; d < node.dimensions; ++d) {
                const array_bound& b = library_.bounds[node.first_bound + d];
                text += "[" + number(b.lower) + " To " + number(b.lower + static_cast<long long>(b.elements) - 1) + "]";
            }
            return text;
        }
        case VT_USERDEFINED: return guid_text(library_.references[node.reference].guid);
        default: return "VT" + number(node.vt);
        }
    }

    std::string found_type(ITypeInfo* owner, const TYPEDESC& desc) const {
        switch (desc.vt) {
        case VT_PTR: return found_type(owner, *desc.lptdesc) + "*";
        case VT_SAFEARRAY: return "SAFEARRAY(" + found_type(owner, *desc.lptdesc) + ")";
        case VT_CARRAY: {
            std::string text = found_type(owner, desc.lpadesc->tdescElem);
            for (USHORT d = 0; d < desc.lpadesc->cDims; ++d) {
                const SAFEARRAYBOUND& b = desc.lpadesc->rgbounds[d];
                text += "[" + number(b.lLbound) + " To " + number(b.lLbound + static_cast<long long>(b.cElements) - 1) + "]";
            }
            return text;
        }
        case VT_USERDEFINED: {
            com_ptr<ITypeInfo> target;
            if (FAILED(owner->GetRefTypeInfo(desc.hreftype, target.put()))) return "(unresolved reference)";
            return guid_of(target.get());
        }
        default: return "VT" + number(desc.vt);
        }
    }

    static std::string guid_of(ITypeInfo* info) {
        TYPEATTR* attr = nullptr;
        if (FAILED(info->GetTypeAttr(&attr))) return "(no attributes)";
        std::string text = guid_text(attr->guid);
        info->ReleaseTypeAttr(attr);
        return text;
    }

    static std::string default_text(const VARIANT& v) {
        switch (V_VT(&v)) {
        case VT_EMPTY: return "none";
        case VT_BOOL: return "Boolean " + number(V_BOOL(&v));
        case VT_I2: return "Integer " + number(V_I2(&v));
        case VT_I4: return "Long " + number(V_I4(&v));
        case VT_UI1: return "Byte " + number(V_UI1(&v));
        case VT_R4: return "Single " + std::to_string(V_R4(&v));
        case VT_R8: return "Double " + std::to_string(V_R8(&v));
        case VT_DATE: return "Date " + std::to_string(V_DATE(&v));
        case VT_BSTR: return "String \"" + narrow(V_BSTR(&v)) + "\"";
        default: return "VT" + number(V_VT(&v));
        }
    }

    static std::string default_text(const default_value& d) {
        switch (d.vt) {
        case VT_EMPTY: return "none";
        case VT_BOOL: return "Boolean " + number(d.integer);
        case VT_I2: return "Integer " + number(d.integer);
        case VT_UI1: return "Byte " + number(d.integer);
        case VT_R4: return "Single " + std::to_string(static_cast<float>(d.real));
        case VT_R8: return "Double " + std::to_string(d.real);
        case VT_DATE: return "Date " + std::to_string(d.real);
        case VT_BSTR: return "String \"" + narrow(d.text) + "\"";
        default: return "Long " + number(d.integer);
        }
    }

    // The type described at INDEX, found in the file at FOUND_AT.
    void verify_type(ITypeLib* loaded, int index, int found_at, ITypeInfo* info) {
        const type_entry& type = library_.types[index];
        const std::string where = "type " + number(index) + " " + narrow(type.name);
        TYPEATTR* attr = nullptr;
        check(info->GetTypeAttr(&attr), "GetTypeAttr " + where);
        unique_bstr name, doc;
        DWORD help_context = 0;
        check(loaded->GetDocumentation(found_at, name.put(), doc.put(), &help_context, nullptr), "GetDocumentation");
        expect(where, "name", narrow(type.name), narrow(name.get()));
        expect(where, "doc string", "", narrow(doc.get()));
        expect(where, "help context", "0", number(help_context));
        expect(where, "GUID", guid_text(type.guid), guid_text(attr->guid));
        expect(where, "version", version(type.major, type.minor), version(attr->wMajorVerNum, attr->wMinorVerNum));
        // The dispatch view of a dual interface does not report oleautomation.
        const WORD flags = type.kind == type_kind::dual_interface
                               ? static_cast<WORD>(type.flags & ~TYPEFLAG_FOLEAUTOMATION)
                               : type.flags;
        expect(where, "type flags", hex(flags), hex(attr->wTypeFlags));
        expect(where, "lcid", hex(library_.lcid), hex(attr->lcid));

        const TYPEKIND kinds[] = {TKIND_DISPATCH, TKIND_DISPATCH, TKIND_COCLASS,
                                  TKIND_ALIAS, TKIND_RECORD, TKIND_ENUM};
        expect(where, "kind", kind_name(kinds[static_cast<int>(type.kind)]), kind_name(attr->typekind));
        switch (type.kind) {
        case type_kind::dual_interface: verify_dual(where, info, attr, type); break;
        case type_kind::dispinterface: verify_dispinterface(where, info, attr, type); break;
        case type_kind::coclass: verify_coclass(where, info, attr, type); break;
        case type_kind::alias:
            expect(where, "alias target", expected_type(type.alias_type), found_type(info, attr->tdescAlias));
            expect(where, "members", "0 funcs 0 vars 0 impls",
                   number(attr->cFuncs) + " funcs " + number(attr->cVars) + " vars " + number(attr->cImplTypes) + " impls");
            break;
        case type_kind::record:
        case type_kind::enumeration: verify_vars(where, info, attr, type); break;
        }
        info->ReleaseTypeAttr(attr);
    }

    void verify_base_is_idispatch(const std::string& where, ITypeInfo* info, int impl) {
        HREFTYPE href = 0;
        if (FAILED(info->GetRefTypeOfImplType(impl, &href))) {
            differ(where, "base", "no implemented type " + number(impl));
            return;
        }
        com_ptr<ITypeInfo> base;
        if (FAILED(info->GetRefTypeInfo(href, base.put()))) {
            differ(where, "base", "unresolved");
            return;
        }
        expect(where, "base", guid_text(IID_IDispatch), guid_of(base.get()));
    }

    void verify_dual(const std::string& where, ITypeInfo* info, TYPEATTR* attr, const type_entry& type) {
        // The dispatch view: IDispatch's members plus our own, no vtable.
        expect(where, "dispatch view funcs", number(7 + type.funcs), number(attr->cFuncs));
        expect(where, "dispatch view impl types", "1", number(attr->cImplTypes));
        expect(where, "dispatch view vtable size", number(7 * slot_), number(attr->cbSizeVft));
        verify_base_is_idispatch(where + " (dispatch view)", info, 0);

        HREFTYPE href = 0;
        com_ptr<ITypeInfo> vtable_view;
        if (FAILED(info->GetRefTypeOfImplType(-1, &href)) || FAILED(info->GetRefTypeInfo(href, vtable_view.put()))) {
            differ(where, "dual", "no interface view");
            return;
        }
        TYPEATTR* vattr = nullptr;
        check(vtable_view->GetTypeAttr(&vattr), "GetTypeAttr " + where);
        expect(where, "interface view kind", "interface", kind_name(vattr->typekind));
        expect(where, "interface view GUID", guid_text(type.guid), guid_text(vattr->guid));
        expect(where, "interface view flags", hex(type.flags), hex(vattr->wTypeFlags));
        expect(where, "interface view funcs", number(type.funcs), number(vattr->cFuncs));
        expect(where, "interface view vars", "0", number(vattr->cVars));
        expect(where, "interface view impl types", "1", number(vattr->cImplTypes));
        expect(where, "interface view vtable size", number((7 + type.funcs) * slot_), number(vattr->cbSizeVft));
        verify_base_is_idispatch(where, vtable_view.get(), 0);
        for (int f = 0; f < type.funcs && f < vattr->cFuncs; ++f)
            verify_func(where, vtable_view.get(), type, f, FUNC_PUREVIRTUAL, VT_HRESULT);
        vtable_view->ReleaseTypeAttr(vattr);
    }

    void verify_dispinterface(const std::string& where, ITypeInfo* info, TYPEATTR* attr, const type_entry& type) {
        // Only its own members, unlike the dispatch view of a dual interface.
        expect(where, "funcs", number(type.funcs), number(attr->cFuncs));
        expect(where, "vars", "0", number(attr->cVars));
        expect(where, "impl types", "1", number(attr->cImplTypes));
        expect(where, "vtable size", number(7 * slot_), number(attr->cbSizeVft));
        verify_base_is_idispatch(where, info, 0);
        for (int f = 0; f < type.funcs && f < attr->cFuncs; ++f)
            verify_func(where, info, type, f, FUNC_DISPATCH, VT_VOID);
    }

    void verify_func(const std::string& owner, ITypeInfo* info, const type_entry& type, int index,
                     FUNCKIND funckind, VARTYPE returns) {
        const func_entry& func = library_.funcs[type.first_func + index];
        const std::string where = owner + "." + narrow(func.name);
        FUNCDESC* desc = nullptr;
        const HRESULT hr = info->GetFuncDesc(index, &desc);
        if (FAILED(hr)) {
            differ(where, "func", "unreadable at index " + number(index) + ": " + hex(static_cast<ULONG>(hr)));
            return;
        }
        expect(where, "memid", hex(static_cast<ULONG>(func.id)), hex(static_cast<ULONG>(desc->memid)));
        expect(where, "invoke kind", number(func.invoke), number(desc->invkind));
        expect(where, "func kind", number(funckind), number(desc->funckind));
        expect(where, "calling convention", number(CC_STDCALL), number(desc->callconv));
        expect(where, "func flags", hex(0), hex(desc->wFuncFlags));
        expect(where, "vtable offset", number(func.vtable_slot >= 0 ? func.vtable_slot * slot_ : 0), number(desc->oVft));
        expect(where, "params", number(func.params), number(desc->cParams));
        expect(where, "optional params", number(func.optional), number(desc->cParamsOpt));
        expect(where, "returns", "VT" + number(returns), found_type(info, desc->elemdescFunc.tdesc));

        std::vector<BSTR> names(func.params + 1);
        UINT got = 0;
        check(info->GetNames(desc->memid, names.data(), static_cast<UINT>(names.size()), &got), "GetNames " + where);
        std::vector<unique_bstr> owned;
        for (UINT i = 0; i < got; ++i) owned.emplace_back(names[i]);
        std::string wanted_names = narrow(func.name), found_names;
        for (int p = 0; p < func.params; ++p) {
            const param_entry& param = library_.params[func.first_param + p];
            if (param.name) wanted_names += "," + narrow(param.name);
        }
        for (UINT i = 0; i < got; ++i) found_names += (i ? "," : "") + narrow(owned[i].get());
        expect(where, "names", wanted_names, found_names);

        // Help is looked up by member id, which a get and a put share: the
        // first of them answers.
        const func_entry* first = &library_.funcs[type.first_func];
        while (first->id != func.id) ++first;
        unique_bstr doc;
        check(info->GetDocumentation(desc->memid, nullptr, doc.put(), nullptr, nullptr), "GetDocumentation " + where);
        expect(where, "help string", narrow(first->help), narrow(doc.get()));

        for (int p = 0; p < func.params && p < desc->cParams; ++p) {
            const param_entry& param = library_.params[func.first_param + p];
            const ELEMDESC& elem = desc->lprgelemdescParam[p];
            const std::string at = where + " param " + number(p);
            expect(at, "type", expected_type(param.type), found_type(info, elem.tdesc));
            expect(at, "flags", hex(param.flags), hex(elem.paramdesc.wParamFlags));
            std::string found_default = "none";
            if ((elem.paramdesc.wParamFlags & PARAMFLAG_FHASDEFAULT) && elem.paramdesc.pparamdescex)
                found_default = default_text(elem.paramdesc.pparamdescex->varDefaultValue);
            expect(at, "default", default_text(param.value), found_default);
        }
        info->ReleaseFuncDesc(desc);
    }

    void verify_coclass(const std::string& where, ITypeInfo* info, TYPEATTR* attr, const type_entry& type) {
        expect(where, "members", "0 funcs 0 vars", number(attr->cFuncs) + " funcs " + number(attr->cVars) + " vars");
        expect(where, "impl types", number(type.impls), number(attr->cImplTypes));
        for (int i = 0; i < type.impls && i < attr->cImplTypes; ++i) {
            const impl_entry& impl = library_.impls[type.first_impl + i];
            const std::string at = where + " impl " + number(i);
            HREFTYPE href = 0;
            com_ptr<ITypeInfo> target;
            INT flags = 0;
            if (FAILED(info->GetRefTypeOfImplType(i, &href)) || FAILED(info->GetRefTypeInfo(href, target.put())) ||
                FAILED(info->GetImplTypeFlags(i, &flags))) {
                differ(at, "impl type", "unreadable");
                continue;
            }
            expect(at, "interface", guid_text(library_.references[impl.reference].guid), guid_of(target.get()));
            expect(at, "flags", hex(impl.flags), hex(flags));
        }
    }

    void verify_vars(const std::string& where, ITypeInfo* info, TYPEATTR* attr, const type_entry& type) {
        const bool record = type.kind == type_kind::record;
        expect(where, "members", number(type.vars) + " vars 0 funcs 0 impls",
               number(attr->cVars) + " vars " + number(attr->cFuncs) + " funcs " + number(attr->cImplTypes) + " impls");
        if (type.size >= 0) expect(where, "size", number(type.size), number(attr->cbSizeInstance));
        expect(where, "alignment", number(type.alignment), number(attr->cbAlignment));
        for (int v = 0; v < type.vars && v < attr->cVars; ++v) {
            const var_entry& var = library_.vars[type.first_var + v];
            const std::string at = where + "." + narrow(var.name);
            VARDESC* desc = nullptr;
            if (FAILED(info->GetVarDesc(v, &desc))) {
                differ(at, "var", "missing");
                continue;
            }
            expect(at, "memid", hex(static_cast<ULONG>(var.id)), hex(static_cast<ULONG>(desc->memid)));
            expect(at, "var flags", "0x0", hex(desc->wVarFlags));
            expect(at, "type", expected_type(var.type), found_type(info, desc->elemdescVar.tdesc));
            if (record) {
                expect(at, "kind", number(VAR_PERINSTANCE), number(desc->varkind));
                expect(at, "offset", number(var.value), number(desc->oInst));
            } else {
                expect(at, "kind", number(VAR_CONST), number(desc->varkind));
                const VARIANT* value = desc->lpvarValue;
                expect(at, "value", "Long " + number(var.value), value ? default_text(*value) : "none");
            }
            unique_bstr name, doc;
            UINT got = 0;
            BSTR raw_name = nullptr;
            check(info->GetNames(desc->memid, &raw_name, 1, &got), "GetNames " + at);
            name.reset(raw_name);
            expect(at, "name", narrow(var.name), narrow(name.get()));
            check(info->GetDocumentation(desc->memid, nullptr, doc.put(), nullptr, nullptr), "GetDocumentation " + at);
            expect(at, "doc string", narrow(var.doc), narrow(doc.get()));
            info->ReleaseVarDesc(desc);
        }
    }

    const library_entry& library_;
    const int slot_;
    int differences_ = 0;
};

// ------------------------------------------------------------------ imports

std::vector<com_ptr<ITypeLib>> load_imports(const library_entry& library, const wchar_t* standin_path) {
    std::vector<com_ptr<ITypeLib>> imports;
    for (int i = 0; i < library.import_count; ++i) {
        const import_entry& entry = library.imports[i];
        com_ptr<ITypeLib> loaded;
        if (entry.standin) {
            // By path and unregistered: the real library must not be shadowed.
            check(LoadTypeLibEx(windows_path(standin_path).c_str(), REGKIND_NONE, loaded.put()),
                  "loading the stand-in " + narrow(entry.name));
        } else {
            check(LoadRegTypeLib(entry.libid, entry.major, entry.minor, entry.lcid, loaded.put()),
                  "loading " + narrow(entry.name));
        }
        imports.push_back(loaded);
    }
    return imports;
}

bool verify(const std::wstring& path, const library_entry& library) {
    verifier check_back(library);
    check_back.verify(path);
    std::string problem;
    if (!msft::check_file(path, library, &problem)) {
        for (size_t start = 0, end; start <= problem.size(); start = end + 1) {
            end = std::min(problem.find('\n', start), problem.size());
            std::printf("typelib: %s: %s\n", narrow(path.c_str()).c_str(), problem.substr(start, end - start).c_str());
        }
        return false;
    }
    if (check_back.differences()) {
        std::printf("typelib: %s differs from its description in %d facts\n", narrow(path.c_str()).c_str(),
                    check_back.differences());
        return false;
    }
    return true;
}

int run(int argc, wchar_t** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: typelib_writer standin OUT.tlb | library OUT.tlb STANDIN.tlb | verify TLB STANDIN.tlb\n");
        return 2;
    }
    const std::wstring mode = argv[1];
    const std::wstring path = windows_path(argv[2]);
    const bool standin = mode == L"standin";
    if (!standin && (argc < 4 || (mode != L"library" && mode != L"verify"))) {
        std::fprintf(stderr, "typelib_writer: unknown mode or missing stand-in path\n");
        return 2;
    }
    const library_entry& library = standin ? typelib_data::standin_description : typelib_data::library_description;
    const std::vector<com_ptr<ITypeLib>> imports = standin ? std::vector<com_ptr<ITypeLib>>{}
                                                           : load_imports(library, argv[3]);
    if (mode == L"verify") return verify(path, library) ? 0 : 1;
    DeleteFileW(path.c_str());
    try {
        library_writer(library, imports).write(path);
    } catch (const step_failed&) {
        DeleteFileW(path.c_str());
        throw;
    }
    std::string problem;
    if (!msft::correct_file(path, library, &problem)) {
        std::printf("typelib: %s: %s\n", narrow(path.c_str()).c_str(), problem.c_str());
        DeleteFileW(path.c_str());
        return 1;
    }
    // A file that does not match is removed, so that no later build
    // mistakes it for a finished one.
    if (!verify(path, library)) {
        DeleteFileW(path.c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
    int status;
    try {
        status = run(argc, argv);
    } catch (const step_failed& failure) {
        std::fprintf(stderr, "typelib_writer: %s failed: 0x%08lX\n", failure.what.c_str(),
                     static_cast<unsigned long>(failure.hr));
        status = 1;
    }
    CoUninitialize();
    return status;
}
