// Reads what the dynamic loader sees of a shared object: its dynamic symbols, the libraries it
// needs and whether it patches its own code. The validator judges the bundle's binaries from
// the file itself, so a symbol the loader would resolve lazily still counts.
#pragma once

#include <elf.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace sr::validate::elf {

// The structures are read as they lie in memory, so the host must share the file's byte order.
static_assert(std::endian::native == std::endian::little,
              "the ELF reader assumes a little-endian host");

struct Symbol {
    std::string name;
    bool defined = false;  // the object provides it (not SHN_UNDEF)
    bool exported = false; // defined, GLOBAL/WEAK/UNIQUE, default or protected visibility
};

struct Image {
    std::string error;               // why the file is not a readable 64-bit little-endian ELF
    std::uint16_t type = ET_NONE;    // ET_DYN for a shared object
    std::vector<Symbol> symbols;     // .dynsym without its null entry
    std::vector<std::string> needed; // DT_NEEDED in file order
    bool textRelocations = false;    // DT_TEXTREL or DF_TEXTREL

    bool ok() const { return error.empty(); }
};

namespace detail {

// Copies a T from `offset`, or says the file is too short for it.
template <typename T>
bool readAt(const std::vector<char>& file, std::uint64_t offset, T& out) {
    if (offset > file.size() || file.size() - offset < sizeof(T)) return false;
    std::memcpy(&out, file.data() + offset, sizeof(T));
    return true;
}

// The NUL-terminated string at `offset` within a string table section.
inline bool stringAt(const std::vector<char>& file, const Elf64_Shdr& table, std::uint64_t offset,
                     std::string& out) {
    if (table.sh_type != SHT_STRTAB || offset >= table.sh_size) return false;
    if (table.sh_offset > file.size() || file.size() - table.sh_offset < table.sh_size)
        return false;
    const char* begin = file.data() + table.sh_offset + offset;
    const auto length = strnlen(begin, std::size_t(table.sh_size - offset));
    if (length == table.sh_size - offset) return false; // runs off the table
    out.assign(begin, length);
    return true;
}

} // namespace detail

inline Image read(const std::string& path) {
    Image image;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        image.error = "cannot open " + path;
        return image;
    }
    const std::vector<char> file{std::istreambuf_iterator<char>(in),
                                 std::istreambuf_iterator<char>()};

    Elf64_Ehdr header{};
    if (!detail::readAt(file, 0, header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
        image.error = path + " is not an ELF file";
        return image;
    }
    if (header.e_ident[EI_CLASS] != ELFCLASS64) {
        image.error = path + " is not a 64-bit ELF file";
        return image;
    }
    if (header.e_ident[EI_DATA] != ELFDATA2LSB) {
        image.error = path + " is not a little-endian ELF file";
        return image;
    }
    image.type = header.e_type;

    // The loader maps every segment from the file; one reaching past its end faults the
    // process that loads it (SIGBUS), so a cut-off binary is caught here instead.
    if (header.e_phnum != 0 && header.e_phentsize != sizeof(Elf64_Phdr)) {
        image.error = path + " has malformed program headers";
        return image;
    }
    for (std::uint64_t i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr segment{};
        if (!detail::readAt(file, header.e_phoff + i * sizeof(Elf64_Phdr), segment) ||
            (segment.p_type == PT_LOAD && (segment.p_offset > file.size() ||
                                           file.size() - segment.p_offset < segment.p_filesz))) {
            image.error = path + " is truncated (a segment ends past the end of the file)";
            return image;
        }
    }
    if (header.e_shoff == 0 || header.e_shentsize != sizeof(Elf64_Shdr)) {
        image.error = path + " has no section headers to find its dynamic symbols in";
        return image;
    }

    // More sections than e_shnum can hold put the count in the first header's size.
    Elf64_Shdr first{};
    if (!detail::readAt(file, header.e_shoff, first)) {
        image.error = path + " is truncated (section headers)";
        return image;
    }
    const std::uint64_t count = header.e_shnum != 0 ? header.e_shnum : first.sh_size;
    std::vector<Elf64_Shdr> sections(count);
    for (std::uint64_t i = 0; i < count; ++i) {
        if (!detail::readAt(file, header.e_shoff + i * sizeof(Elf64_Shdr), sections[i])) {
            image.error = path + " is truncated (section headers)";
            return image;
        }
    }
    const auto linked = [&](const Elf64_Shdr& s) -> const Elf64_Shdr* {
        return s.sh_link < sections.size() ? &sections[s.sh_link] : nullptr;
    };

    // Version names appear in .dynsym as absolute symbols; they are not code a host can call.
    std::set<std::string> versionNames;
    for (const auto& s : sections) {
        if (s.sh_type != SHT_GNU_verdef) continue;
        const Elf64_Shdr* strings = linked(s);
        std::uint64_t at = s.sh_offset;
        for (std::uint64_t n = 0; strings && n < s.sh_info; ++n) {
            Elf64_Verdef def{};
            Elf64_Verdaux aux{};
            if (!detail::readAt(file, at, def) || !detail::readAt(file, at + def.vd_aux, aux))
                break;
            std::string name;
            if (detail::stringAt(file, *strings, aux.vda_name, name)) versionNames.insert(name);
            if (def.vd_next == 0) break;
            at += def.vd_next;
        }
    }

    bool haveDynsym = false;
    for (const auto& s : sections) {
        if (s.sh_type == SHT_DYNSYM) {
            haveDynsym = true;
            const Elf64_Shdr* strings = linked(s);
            if (!strings || s.sh_entsize != sizeof(Elf64_Sym)) {
                image.error = path + " has a malformed .dynsym";
                return image;
            }
            for (std::uint64_t i = 1; i < s.sh_size / sizeof(Elf64_Sym); ++i) {
                Elf64_Sym sym{};
                Symbol out;
                if (!detail::readAt(file, s.sh_offset + i * sizeof(Elf64_Sym), sym) ||
                    !detail::stringAt(file, *strings, sym.st_name, out.name)) {
                    image.error = path + " has a truncated .dynsym";
                    return image;
                }
                const unsigned bind = ELF64_ST_BIND(sym.st_info);
                const unsigned type = ELF64_ST_TYPE(sym.st_info);
                const unsigned visibility = ELF64_ST_VISIBILITY(sym.st_other);
                out.defined = sym.st_shndx != SHN_UNDEF;
                out.exported = out.defined &&
                               (bind == STB_GLOBAL || bind == STB_WEAK || bind == STB_GNU_UNIQUE) &&
                               (visibility == STV_DEFAULT || visibility == STV_PROTECTED) &&
                               type != STT_SECTION && type != STT_FILE &&
                               !(sym.st_shndx == SHN_ABS && versionNames.count(out.name));
                image.symbols.push_back(std::move(out));
            }
        } else if (s.sh_type == SHT_DYNAMIC) {
            const Elf64_Shdr* strings = linked(s);
            for (std::uint64_t i = 0; i < s.sh_size / sizeof(Elf64_Dyn); ++i) {
                Elf64_Dyn entry{};
                if (!detail::readAt(file, s.sh_offset + i * sizeof(Elf64_Dyn), entry)) {
                    image.error = path + " has a truncated .dynamic";
                    return image;
                }
                if (entry.d_tag == DT_NULL) break;
                if (entry.d_tag == DT_TEXTREL) image.textRelocations = true;
                if (entry.d_tag == DT_FLAGS && (entry.d_un.d_val & DF_TEXTREL))
                    image.textRelocations = true;
                if (entry.d_tag == DT_NEEDED) {
                    std::string name;
                    if (!strings || !detail::stringAt(file, *strings, entry.d_un.d_val, name)) {
                        image.error = path + " has a DT_NEEDED entry outside its string table";
                        return image;
                    }
                    image.needed.push_back(std::move(name));
                }
            }
        }
    }
    if (!haveDynsym) image.error = path + " has no .dynsym (not a dynamically linked object)";
    return image;
}

// The names of the symbols a host can look up, in table order.
inline std::vector<std::string> exportedNames(const Image& image) {
    std::vector<std::string> names;
    for (const auto& s : image.symbols)
        if (s.exported) names.push_back(s.name);
    return names;
}

} // namespace sr::validate::elf
