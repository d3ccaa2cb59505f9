// The plug-in library's dynamic symbol table: the factory is the one
// function a host can find, under its plain C name. Read from the ELF file
// itself (32- or 64-bit), so the check runs the same under emulation.
#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

struct DynamicSymbol {
    std::string name;
    unsigned type;     // STT_*
    unsigned binding;  // STB_*
};

template <typename T>
bool readAt(const std::vector<char>& file, uint64_t offset, T& out) {
    if (offset > file.size() || file.size() - offset < sizeof(T)) return false;
    std::memcpy(&out, file.data() + offset, sizeof(T));
    return true;
}

// Defined, non-local dynamic symbols of an ELF image; false when the image
// cannot be read.
template <typename Ehdr, typename Shdr, typename Sym, unsigned char (*Type)(unsigned char),
          unsigned char (*Bind)(unsigned char)>
bool definedDynamicSymbols(const std::vector<char>& file, std::vector<DynamicSymbol>& symbols) {
    Ehdr header;
    if (!readAt(file, 0, header) || header.e_shentsize != sizeof(Shdr)) return false;
    for (unsigned i = 0; i < header.e_shnum; ++i) {
        Shdr section;
        if (!readAt(file, header.e_shoff + uint64_t{i} * sizeof(Shdr), section)) return false;
        if (section.sh_type != SHT_DYNSYM) continue;
        Shdr strings;
        if (!readAt(file, header.e_shoff + uint64_t{section.sh_link} * sizeof(Shdr), strings)) return false;
        const uint64_t count = section.sh_size / sizeof(Sym);
        for (uint64_t s = 1; s < count; ++s) {
            Sym symbol;
            if (!readAt(file, section.sh_offset + s * sizeof(Sym), symbol)) return false;
            if (symbol.st_shndx == SHN_UNDEF || Bind(symbol.st_info) == STB_LOCAL) continue;
            const uint64_t nameAt = strings.sh_offset + symbol.st_name;
            if (nameAt >= file.size()) return false;
            const char* name = file.data() + nameAt;
            symbols.push_back(
                {std::string(name, strnlen(name, file.size() - nameAt)), Type(symbol.st_info), Bind(symbol.st_info)});
        }
        return true;
    }
    return false;
}

unsigned char type32(unsigned char info) {
    return ELF32_ST_TYPE(info);
}
unsigned char bind32(unsigned char info) {
    return ELF32_ST_BIND(info);
}
unsigned char type64(unsigned char info) {
    return ELF64_ST_TYPE(info);
}
unsigned char bind64(unsigned char info) {
    return ELF64_ST_BIND(info);
}

std::vector<char> readFile(const char* path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    std::vector<char> file;
    if (!in) return file;
    file.resize(static_cast<size_t>(in.tellg()));
    in.seekg(0);
    in.read(file.data(), static_cast<std::streamsize>(file.size()));
    return file;
}

std::vector<DynamicSymbol> pluginSymbols() {
    const std::vector<char> file = readFile(ZEL_PLUGIN_PATH);
    std::vector<DynamicSymbol> symbols;
    bool ok = false;
    if (file.size() > EI_CLASS && std::memcmp(file.data(), ELFMAG, SELFMAG) == 0) {
        if (file[EI_CLASS] == ELFCLASS32) {
            ok = definedDynamicSymbols<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym, type32, bind32>(file, symbols);
        } else if (file[EI_CLASS] == ELFCLASS64) {
            ok = definedDynamicSymbols<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym, type64, bind64>(file, symbols);
        }
    }
    EXPECT_TRUE(ok) << "cannot read the dynamic symbols of " << ZEL_PLUGIN_PATH;
    return symbols;
}

// The factory is the only exported function, global and unmangled; no C++
// symbol of any kind leaks.
TEST(PluginExports, FactoryIsTheOnlyFunctionAndNoCxxSymbolLeaks) {
    std::vector<std::string> functions;
    for (const DynamicSymbol& symbol : pluginSymbols()) {
        EXPECT_NE(symbol.name.rfind("_Z", 0), 0u) << "exported C++ symbol " << symbol.name;
        if (symbol.type != STT_FUNC && symbol.type != STT_GNU_IFUNC) continue;
        functions.push_back(symbol.name);
        EXPECT_EQ(symbol.type, static_cast<unsigned>(STT_FUNC)) << symbol.name;
        EXPECT_EQ(symbol.binding, static_cast<unsigned>(STB_GLOBAL)) << symbol.name;
    }
    EXPECT_EQ(functions, std::vector<std::string>{"CreateAccelerator_zel"});
}

}  // namespace
