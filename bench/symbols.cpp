// symbols.cpp - names for code addresses in a verifier report. The dynamic
// symbol table (dladdr) knows only exported routines; a driver's static
// helpers are in the program's own symbol table, which is read here once,
// the first time a report needs a name.
#include "verifier.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <mutex>

namespace korvanel::bench::verifier {

namespace {

struct Function {
    uintptr_t start;
    uintptr_t size;
    std::string name;
};

// The program's function symbols, by run-time address.
std::vector<Function> read_program_symbols()
{
    std::vector<Function> out;
    uintptr_t base = 0;
    // The program itself is the first object dl_iterate_phdr reports.
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            *static_cast<uintptr_t*>(data) = info->dlpi_addr;
            return 1;
        },
        &base);
    FILE* file = fopen("/proc/self/exe", "rb");
    if (file == nullptr) {
        return out;
    }
    std::vector<char> image;
    char chunk[65536];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, file)) > 0;) {
        image.insert(image.end(), chunk, chunk + n);
    }
    fclose(file);
    if (image.size() < sizeof(Elf64_Ehdr) || memcmp(image.data(), ELFMAG, SELFMAG) != 0) {
        return out;
    }
    Elf64_Ehdr header;
    memcpy(&header, image.data(), sizeof header);
    auto section = [&](size_t i) {
        Elf64_Shdr s{};
        size_t at = header.e_shoff + i * sizeof(Elf64_Shdr);
        if (at + sizeof s <= image.size()) {
            memcpy(&s, image.data() + at, sizeof s);
        }
        return s;
    };
    for (size_t i = 0; i < header.e_shnum; i++) {
        Elf64_Shdr symbols = section(i);
        if (symbols.sh_type != SHT_SYMTAB || symbols.sh_entsize != sizeof(Elf64_Sym)) {
            continue;
        }
        Elf64_Shdr strings = section(symbols.sh_link);
        for (size_t at = symbols.sh_offset; at + sizeof(Elf64_Sym) <= symbols.sh_offset + symbols.sh_size &&
                                            at + sizeof(Elf64_Sym) <= image.size();
             at += sizeof(Elf64_Sym)) {
            Elf64_Sym s;
            memcpy(&s, image.data() + at, sizeof s);
            if (ELF64_ST_TYPE(s.st_info) != STT_FUNC || s.st_value == 0 || s.st_name >= strings.sh_size ||
                strings.sh_offset + s.st_name >= image.size()) {
                continue;
            }
            const char* name = image.data() + strings.sh_offset + s.st_name;
            size_t room = image.size() - (strings.sh_offset + s.st_name);
            out.push_back({base + s.st_value, s.st_size, std::string(name, strnlen(name, room))});
        }
    }
    std::sort(out.begin(), out.end(), [](const Function& a, const Function& b) { return a.start < b.start; });
    return out;
}

const std::vector<Function>& program_symbols()
{
    static std::once_flag once;
    static std::vector<Function> symbols;
    std::call_once(once, [] { symbols = read_program_symbols(); });
    return symbols;
}

// "SelectMode(_DEVICE_CONTEXT*, ...)": the routine's name is enough, so the
// parameter list at the end goes (the names within it may hold brackets of
// their own: "(anonymous namespace)", "{lambda()#1}").
std::string readable(const char* mangled)
{
    int status = 0;
    char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::string name = status == 0 && demangled != nullptr ? demangled : mangled;
    free(demangled);
    for (const char* suffix : {" const", " volatile", " &", " &&"}) {
        size_t n = strlen(suffix);
        if (name.size() > n && name.compare(name.size() - n, n, suffix) == 0) {
            name.resize(name.size() - n);
        }
    }
    if (!name.empty() && name.back() == ')') {
        int depth = 0;
        for (size_t i = name.size(); i-- > 0;) {
            depth += name[i] == ')' ? 1 : name[i] == '(' ? -1 : 0;
            if (depth == 0) {
                name.resize(i);
                break;
            }
        }
    }
    return name;
}

}  // namespace

std::string symbol(const void* address)
{
    auto at = reinterpret_cast<uintptr_t>(address);
    const auto& symbols = program_symbols();
    auto it = std::upper_bound(symbols.begin(), symbols.end(), at,
                               [](uintptr_t a, const Function& f) { return a < f.start; });
    if (it != symbols.begin() && at < std::prev(it)->start + std::max<uintptr_t>(std::prev(it)->size, 1)) {
        return readable(std::prev(it)->name.c_str());
    }
    Dl_info info{};
    if (address != nullptr && dladdr(address, &info) != 0 && info.dli_sname != nullptr) {
        return readable(info.dli_sname);
    }
    char text[32];
    snprintf(text, sizeof text, "%p", address);
    return text;
}

}  // namespace korvanel::bench::verifier
