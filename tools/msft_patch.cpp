// The MSFT type-library format, as far as the corrections need it:
//
//   header        0x54 bytes (+4 when varflags has 0x100: a help DLL)
//                   0x0C lcid (the locale of the names), 0x10 lcid2 (the
//                   library's), 0x14 varflags, 0x20 number of type infos
//   offsets       one INT per type info: its place in segment 0
//   segments      15 x {offset, length, -1, 0x0F}; segment 0 holds the
//                 type infos, 0x64 bytes each:
//                   0x04 offset of the member block, 0x18 cFuncs | cVars << 16,
//                   0x4E cbSizeVft (INT16), 0x50 cbSizeInstance, 0x54 datatype1
//   member block  INT length, then the function records one after another;
//                 a record starts with its size in the low word, holds
//                   0x10 FKCCIC (0x1000: the parameters carry defaults),
//                   0x14 number of parameters (INT16),
//                 and ends with one INT default per parameter (when flagged)
//                 followed by 12 bytes per parameter.
//
// A default that fits is kept in the INT itself: 0x80000000, the VARTYPE
// shifted left by 26, and the value in the low bits.
#include "tools/msft_patch.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace msft {

namespace {

using namespace typelib_model;

constexpr size_t header_size = 0x54;
constexpr size_t typeinfo_size = 0x64;
constexpr uint32_t help_dll_flag = 0x100;

uint32_t inline_default(VARTYPE vt, uint32_t value) { return 0x80000000u | (uint32_t{vt} << 26) | value; }

using file_owner = std::unique_ptr<FILE, int (*)(FILE*)>;

class image {
public:
    bool load(const std::wstring& path, std::string* problem) {
        file_owner file(_wfopen(path.c_str(), L"rb"), &std::fclose);
        if (!file) return fail(problem, "cannot open the file");
        unsigned char buffer[65536];
        size_t got;
        while ((got = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) bytes_.insert(bytes_.end(), buffer, buffer + got);
        return true;
    }

    bool save(const std::wstring& path, std::string* problem) const {
        file_owner file(_wfopen(path.c_str(), L"wb"), &std::fclose);
        if (!file || std::fwrite(bytes_.data(), 1, bytes_.size(), file.get()) != bytes_.size())
            return fail(problem, "cannot write the file");
        if (std::fflush(file.get()) != 0) return fail(problem, "cannot write the file");
        return true;
    }

    bool fits(size_t offset, size_t length) const { return offset <= bytes_.size() && length <= bytes_.size() - offset; }

    uint32_t u32(size_t offset) const {
        uint32_t v = 0;
        if (fits(offset, 4)) std::memcpy(&v, &bytes_[offset], 4);
        return v;
    }
    uint16_t u16(size_t offset) const {
        uint16_t v = 0;
        if (fits(offset, 2)) std::memcpy(&v, &bytes_[offset], 2);
        return v;
    }
    void put32(size_t offset, uint32_t v) { std::memcpy(&bytes_[offset], &v, 4); }
    void put16(size_t offset, uint16_t v) { std::memcpy(&bytes_[offset], &v, 2); }

    static bool fail(std::string* problem, const std::string& what) {
        if (problem) *problem = what;
        return false;
    }

private:
    std::vector<unsigned char> bytes_;
};

// Where each type info of the file lies.
struct layout {
    std::vector<size_t> typeinfos;

    bool read(const image& file, int expected_types, std::string* problem) {
        if (!file.fits(0, header_size) || file.u32(0) != 0x5446534D || file.u32(4) != 0x00010002)
            return image::fail(problem, "not an MSFT type library");
        const uint32_t count = file.u32(0x20);
        if (static_cast<int>(count) != expected_types)
            return image::fail(problem, "holds " + std::to_string(count) + " types, not " + std::to_string(expected_types));
        size_t offsets = header_size + ((file.u32(0x14) & help_dll_flag) ? 4 : 0);
        const size_t segments = offsets + 4 * size_t{count};
        if (!file.fits(offsets, 4 * size_t{count} + 16)) return image::fail(problem, "truncated header");
        const size_t segment0 = file.u32(segments);
        const size_t segment0_length = file.u32(segments + 4);
        for (uint32_t i = 0; i < count; ++i) {
            const size_t at = file.u32(offsets + 4 * i);
            if (at + typeinfo_size > segment0_length || !file.fits(segment0 + at, typeinfo_size))
                return image::fail(problem, "type info " + std::to_string(i) + " lies outside its segment");
            typeinfos.push_back(segment0 + at);
        }
        return true;
    }
};

std::string hex(uint32_t v) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%08X", v);
    return buffer;
}

std::string narrow(const wchar_t* text) {
    std::string out;
    for (; text && *text; ++text) out += *text < 128 ? static_cast<char>(*text) : '?';
    return out;
}

// The writer stores a record's size as 0; the size is the description's.
bool correct_record_size(image& file, size_t base, const type_entry& type, std::string* problem) {
    const uint32_t stored = file.u32(base + 0x50);
    if (stored != 0 && stored != static_cast<uint32_t>(type.size))
        return image::fail(problem, narrow(type.name) + ": unexpected stored size " + std::to_string(stored));
    file.put32(base + 0x50, static_cast<uint32_t>(type.size));
    return true;
}

// In a 64-bit library the writer sizes an enum like a pointer; an enum is
// four bytes on every platform.
bool correct_enum_size(image& file, size_t base, const library_entry& library, const type_entry& type,
                       std::string* problem) {
    const uint32_t stored = file.u32(base + 0x50);
    if (type.size < 0 || stored == static_cast<uint32_t>(type.size)) return true;
    if (stored != static_cast<uint32_t>(pointer_size(library)))
        return image::fail(problem, narrow(type.name) + ": unexpected stored size " + std::to_string(stored));
    file.put32(base + 0x50, static_cast<uint32_t>(type.size));
    return true;
}

// The writer stores a dispinterface like the dispatch view of a dual
// interface: IDispatch as base (datatype1) and IDispatch's seven slots in
// its vtable size, so that it reads back with IDispatch's members ahead of
// its own. A dispinterface has no base of its own and a vtable entry per
// member; IDispatch stays its implemented interface.
bool correct_dispinterface(image& file, size_t base, const library_entry& library, const type_entry& type,
                           std::string* problem) {
    const int slot = pointer_size(library);
    const uint32_t base_reference = file.u32(base + 0x54);
    const uint16_t vtable_size = file.u16(base + 0x4E);
    const uint16_t own_size = static_cast<uint16_t>(slot * type.funcs);
    if (base_reference == 0xFFFFFFFFu && vtable_size == own_size) return true;
    if (vtable_size != slot * (7 + type.funcs))
        return image::fail(problem, narrow(type.name) + ": unexpected vtable size " + std::to_string(vtable_size));
    file.put32(base + 0x54, 0xFFFFFFFFu);
    file.put16(base + 0x4E, own_size);
    return true;
}

// The writer keeps only the low byte of a Boolean default, so True (-1)
// reads back as 255.
bool correct_boolean_defaults(image& file, size_t base, const library_entry& library, const type_entry& type,
                              std::string* problem) {
    const size_t block = file.u32(base + 0x04);
    const uint32_t counts = file.u32(base + 0x18);
    if ((counts & 0xFFFF) != static_cast<uint32_t>(type.funcs))
        return image::fail(problem, narrow(type.name) + ": unexpected number of functions");
    size_t record = block + 4;
    for (int f = 0; f < type.funcs; ++f) {
        const func_entry& func = library.funcs[type.first_func + f];
        if (!file.fits(record, 0x18)) return image::fail(problem, narrow(func.name) + ": record outside the file");
        const size_t length = file.u32(record) & 0xFFFF;
        const uint32_t fkccic = file.u32(record + 0x10);
        const int params = static_cast<int16_t>(file.u16(record + 0x14));
        const size_t per_param = (fkccic & 0x1000) ? 16 : 12;
        if (params != func.params || length < 0x18 + per_param * size_t(params) || !file.fits(record, length))
            return image::fail(problem, narrow(func.name) + ": unexpected function record");
        const size_t defaults = record + length - 16 * size_t(params);
        for (int p = 0; p < params && (fkccic & 0x1000); ++p) {
            const default_value& value = library.params[func.first_param + p].value;
            if (value.vt != VT_BOOL || value.integer == 0) continue;
            const uint32_t stored = file.u32(defaults + 4 * p);
            const uint32_t wanted = inline_default(VT_BOOL, 0xFFFF);
            if (stored == wanted) continue;
            if (stored != inline_default(VT_BOOL, 0xFF))
                return image::fail(problem, narrow(func.name) + ": unexpected Boolean default " + hex(stored));
            file.put32(defaults + 4 * p, wanted);
        }
        record += length;
    }
    return true;
}

bool has_true_default(const library_entry& library, const type_entry& type) {
    for (int f = 0; f < type.funcs; ++f) {
        const func_entry& func = library.funcs[type.first_func + f];
        for (int p = 0; p < func.params; ++p) {
            const default_value& value = library.params[func.first_param + p].value;
            if (value.vt == VT_BOOL && value.integer != 0) return true;
        }
    }
    return false;
}

}  // namespace

bool correct_file(const std::wstring& path, const library_entry& library, std::string* problem) {
    image file;
    layout places;
    if (!file.load(path, problem) || !places.read(file, library.type_count, problem)) return false;
    for (int i = 0; i < library.type_count; ++i) {
        const type_entry& type = library.types[i];
        const size_t base = places.typeinfos[i];
        bool ok = true;
        if (type.kind == type_kind::record) ok = correct_record_size(file, base, type, problem);
        if (type.kind == type_kind::enumeration) ok = correct_enum_size(file, base, library, type, problem);
        if (type.kind == type_kind::dispinterface) ok = correct_dispinterface(file, base, library, type, problem);
        if (ok && (type.kind == type_kind::dual_interface || type.kind == type_kind::dispinterface) &&
            has_true_default(library, type))
            ok = correct_boolean_defaults(file, base, library, type, problem);
        if (!ok) return false;
    }
    return file.save(path, problem);
}

bool check_file(const std::wstring& path, const library_entry& library, std::string* problem) {
    image file;
    layout places;
    if (!file.load(path, problem) || !places.read(file, library.type_count, problem)) return false;
    if (file.u32(0x0C) != library.names_lcid)
        return image::fail(problem, "names locale " + hex(file.u32(0x0C)) + ", expected " + hex(library.names_lcid));
    if (file.u32(0x10) != library.lcid)
        return image::fail(problem, "library locale " + hex(file.u32(0x10)) + ", expected " + hex(library.lcid));
    return true;
}

}  // namespace msft
