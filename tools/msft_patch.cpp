// The MSFT type-library format, as far as the corrections need it:
//
//   header        0x54 bytes (+4 when varflags has 0x100: a help DLL)
//                   0x0C lcid (the locale of the names), 0x10 lcid2 (the
//                   library's), 0x14 varflags, 0x20 number of type infos
//   offsets       one INT per type info: its place in segment 0
//   segments      15 x {offset, length, -1, 0x0F}; segment 0 holds the
//                 type infos, 0x64 bytes each:
//                   0x04 file offset of the member block, 0x18 cFuncs | cVars << 16,
//                   0x4E cbSizeVft (INT16), 0x50 cbSizeInstance, 0x54 datatype1
//                 segment 1 the imported types, 12 bytes each:
//                   0x04 the offset of their library's entry in segment 2
//                 segment 2 the imported libraries, one entry each:
//                   0x00 offset of the LIBID in segment 5 (the GUIDs, 24
//                   bytes each), 0x04 lcid, 0x08 version, 0x0C the length of
//                   the file name << 2 | flags (INT16), then the name,
//                   padded to 4 bytes
//                 Offsets into segments count from the segment's start; only
//                 those of the segments themselves and of member blocks
//                 count from the start of the file.
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

#include <algorithm>
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
    std::string text(size_t offset, size_t length) const {
        return fits(offset, length) ? std::string(bytes_.begin() + offset, bytes_.begin() + offset + length) : std::string();
    }
    GUID guid(size_t offset) const {
        GUID g{};
        if (fits(offset, sizeof g)) std::memcpy(&g, &bytes_[offset], sizeof g);
        return g;
    }
    void replace(size_t offset, size_t length, const std::vector<unsigned char>& with) {
        bytes_.erase(bytes_.begin() + offset, bytes_.begin() + offset + length);
        bytes_.insert(bytes_.begin() + offset, with.begin(), with.end());
    }

    static bool fail(std::string* problem, const std::string& what) {
        if (problem) *problem = what;
        return false;
    }

private:
    std::vector<unsigned char> bytes_;
};

// Where each type info of the file lies, and the segment directory.
struct layout {
    std::vector<size_t> typeinfos;
    size_t segments = 0;

    size_t segment(const image& file, int index) const { return file.u32(segments + 16 * index); }
    size_t segment_length(const image& file, int index) const { return file.u32(segments + 16 * index + 4); }

    bool read(const image& file, int expected_types, std::string* problem) {
        if (!file.fits(0, header_size) || file.u32(0) != 0x5446534D || file.u32(4) != 0x00010002)
            return image::fail(problem, "not an MSFT type library");
        const uint32_t count = file.u32(0x20);
        if (static_cast<int>(count) != expected_types)
            return image::fail(problem, "holds " + std::to_string(count) + " types, not " + std::to_string(expected_types));
        size_t offsets = header_size + ((file.u32(0x14) & help_dll_flag) ? 4 : 0);
        segments = offsets + 4 * size_t{count};
        if (!file.fits(offsets, 4 * size_t{count} + 15 * 16)) return image::fail(problem, "truncated header");
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

constexpr int imported_types_segment = 1, imported_files_segment = 2, guids_segment = 5;

// One library's entry in the imported libraries' segment.
struct import_file {
    size_t at;          // in the segment
    std::string fixed;  // LIBID offset, lcid and version, as stored
    GUID libid;
    uint16_t flags;     // the low bits of the name's length word
    std::string name;
};

bool read_import_files(const image& file, const layout& places, std::vector<import_file>& entries,
                       std::string* problem) {
    const size_t start = places.segment(file, imported_files_segment);
    const size_t length = places.segment_length(file, imported_files_segment);
    if (length == 0) return true;
    if (!file.fits(start, length)) return image::fail(problem, "the imported libraries lie outside the file");
    for (size_t at = 0; at < length;) {
        const size_t name_length = file.u16(start + at + 12) >> 2;
        if (at + 14 + name_length > length) return image::fail(problem, "a truncated imported library");
        entries.push_back({at, file.text(start + at, 12),
                           file.guid(places.segment(file, guids_segment) + file.u32(start + at)),
                           static_cast<uint16_t>(file.u16(start + at + 12) & 3),
                           file.text(start + at + 14, name_length)});
        at = (at + 14 + name_length + 3) & ~size_t{3};
    }
    return true;
}

const import_entry* described_import(const library_entry& library, const GUID& libid) {
    for (int i = 0; i < library.import_count; ++i)
        if (IsEqualGUID(library.imports[i].libid, libid)) return &library.imports[i];
    return nullptr;
}

// The writer names an import by the file it was loaded from, which for the
// VB runtime's is our stand-in; the description gives the real file.
bool correct_import_files(image& file, const layout& places, const library_entry& library, std::string* problem) {
    std::vector<import_file> entries;
    if (!read_import_files(file, places, entries, problem)) return false;
    bool renamed = false;
    for (import_file& entry : entries) {
        const import_entry* described = described_import(library, entry.libid);
        if (!described) return image::fail(problem, "imports a library not described: " + entry.name);
        renamed |= entry.name != narrow(described->file);
        entry.name = narrow(described->file);
    }
    if (!renamed) return true;

    std::vector<unsigned char> segment;
    std::vector<std::pair<size_t, size_t>> moved;  // an entry's offset before and after
    for (const import_file& entry : entries) {
        moved.emplace_back(entry.at, segment.size());
        segment.insert(segment.end(), entry.fixed.begin(), entry.fixed.end());
        const auto word = static_cast<uint16_t>(entry.name.size() << 2 | entry.flags);
        segment.push_back(static_cast<unsigned char>(word & 0xFF));
        segment.push_back(static_cast<unsigned char>(word >> 8));
        segment.insert(segment.end(), entry.name.begin(), entry.name.end());
        segment.resize((segment.size() + 3) & ~size_t{3}, 0);
    }
    const size_t start = places.segment(file, imported_files_segment);
    const size_t length = places.segment_length(file, imported_files_segment);
    const uint32_t shift = static_cast<uint32_t>(segment.size() - length);  // modulo 2^32, as the offsets
    // What lies after the segment moves: the segments, and the member blocks
    // that type infos find by file offset.
    for (int i = 0; i < 15; ++i) {
        const uint32_t offset = file.u32(places.segments + 16 * i);
        if (offset != 0xFFFFFFFFu && offset >= start + length) file.put32(places.segments + 16 * i, offset + shift);
    }
    file.put32(places.segments + 16 * imported_files_segment + 4, static_cast<uint32_t>(segment.size()));
    for (const size_t info : places.typeinfos) {
        const uint32_t block = file.u32(info + 0x04);
        if (block != 0xFFFFFFFFu && block >= start + length) file.put32(info + 0x04, block + shift);
    }
    // Imported types name their library by its entry's offset.
    const size_t types = places.segment(file, imported_types_segment);
    for (size_t at = types; at + 12 <= types + places.segment_length(file, imported_types_segment); at += 12) {
        const uint32_t entry = file.u32(at + 4);
        const auto found = std::find_if(moved.begin(), moved.end(), [&](const auto& m) { return m.first == entry; });
        if (found == moved.end()) return image::fail(problem, "an imported type names no imported library");
        file.put32(at + 4, static_cast<uint32_t>(found->second));
    }
    file.replace(start, length, segment);
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
    // Last: it moves what follows the imported libraries.
    if (!correct_import_files(file, places, library, problem)) return false;
    return file.save(path, problem);
}

bool check_file(const std::wstring& path, const library_entry& library, std::string* problem) {
    image file;
    layout places;
    if (!file.load(path, problem) || !places.read(file, library.type_count, problem)) return false;
    // Every difference, one a line: a file written by another compiler
    // differs in more than one.
    std::string found;
    const auto note = [&found](const std::string& text) { found += (found.empty() ? "" : "\n") + text; };
    if (file.u32(0x0C) != library.names_lcid)
        note("names locale " + hex(file.u32(0x0C)) + ", expected " + hex(library.names_lcid));
    if (file.u32(0x10) != library.lcid)
        note("library locale " + hex(file.u32(0x10)) + ", expected " + hex(library.lcid));
    std::vector<import_file> entries;
    std::string unreadable;
    if (!read_import_files(file, places, entries, &unreadable)) note(unreadable);
    if (entries.size() != static_cast<size_t>(library.import_count))
        note("imports " + std::to_string(entries.size()) + " libraries, not " + std::to_string(library.import_count));
    for (const import_file& entry : entries) {
        const import_entry* described = described_import(library, entry.libid);
        if (!described || entry.name != narrow(described->file))
            note("imports " + entry.name + ", which the description does not name");
    }
    if (found.empty()) return true;
    if (problem) *problem = found;
    return false;
}

}  // namespace msft
