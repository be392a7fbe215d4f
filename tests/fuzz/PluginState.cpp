#include "PluginState.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The load address of the main executable (position-independent executables are relocated).
uintptr_t ExecutableBase() {
    uintptr_t base = 0;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
            *static_cast<uintptr_t*>(data) = info->dlpi_addr;
            return 1;  // the first entry is the executable itself
        },
        &base);
    return base;
}

[[noreturn]] void Fail(const std::string& message) {
    std::fprintf(stderr, "plug-in state: %s\n", message.c_str());
    std::abort();
}

// The program's writable data; not .data.rel.ro, which is read-only once relocated, and not the
// thread-local sections.
bool IsDataSection(const Elf64_Shdr& section, const char* name) {
    return (section.sh_flags & SHF_WRITE) != 0 && (section.sh_flags & SHF_TLS) == 0 &&
           (std::strcmp(name, ".data") == 0 || std::strcmp(name, ".bss") == 0);
}

// Byte copies that AddressSanitizer does not check: an instrumented variable's symbol may cover
// its redzone too, and those bytes are written back exactly as they were read.
__attribute__((no_sanitize("address"))) void CopyBytes(uint8_t* target, const uint8_t* source,
                                                       std::size_t size) {
    for (std::size_t index = 0; index < size; ++index) {
        target[index] = source[index];
    }
}

}  // namespace

CPluginState::CPluginState(const std::string& pluginSources) {
    std::vector<std::string> sourceNames;
    for (std::size_t begin = 0; begin <= pluginSources.size();) {
        std::size_t end = pluginSources.find(',', begin);
        end = end == std::string::npos ? pluginSources.size() : end;
        if (end > begin) {
            sourceNames.push_back(pluginSources.substr(begin, end - begin));
        }
        begin = end + 1;
    }
    const int descriptor = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        Fail("cannot open /proc/self/exe");
    }
    struct stat status;
    if (fstat(descriptor, &status) != 0) {
        Fail("cannot stat /proc/self/exe");
    }
    const std::size_t fileSize = static_cast<std::size_t>(status.st_size);
    void* mapping = mmap(nullptr, fileSize, PROT_READ, MAP_PRIVATE, descriptor, 0);
    close(descriptor);
    if (mapping == MAP_FAILED) {
        Fail("cannot map /proc/self/exe");
    }
    const auto* file = static_cast<const uint8_t*>(mapping);
    const auto* header = reinterpret_cast<const Elf64_Ehdr*>(file);
    const auto* sections = reinterpret_cast<const Elf64_Shdr*>(file + header->e_shoff);
    const char* sectionNames =
        reinterpret_cast<const char*>(file + sections[header->e_shstrndx].sh_offset);

    const Elf64_Shdr* symbolTable = nullptr;
    for (unsigned index = 0; index < header->e_shnum; ++index) {
        if (sections[index].sh_type == SHT_SYMTAB) {
            symbolTable = &sections[index];
        }
    }
    if (symbolTable == nullptr) {
        Fail("the executable has no symbol table (stripped?)");
    }
    const auto* symbols = reinterpret_cast<const Elf64_Sym*>(file + symbolTable->sh_offset);
    const std::size_t symbolCount = symbolTable->sh_size / sizeof(Elf64_Sym);
    const char* names =
        reinterpret_cast<const char*>(file + sections[symbolTable->sh_link].sh_offset);
    const uintptr_t base = ExecutableBase();

    // Local symbols follow the file symbol of the source that defines them.
    bool inPlugin = false;
    for (std::size_t index = 0; index < symbolCount; ++index) {
        const Elf64_Sym& symbol = symbols[index];
        const unsigned type = ELF64_ST_TYPE(symbol.st_info);
        const char* name = names + symbol.st_name;
        if (type == STT_FILE) {
            const char* slash = std::strrchr(name, '/');
            const std::string fileName = slash != nullptr ? slash + 1 : name;
            inPlugin =
                std::find(sourceNames.begin(), sourceNames.end(), fileName) != sourceNames.end();
            continue;
        }
        if (!inPlugin || type != STT_OBJECT || ELF64_ST_BIND(symbol.st_info) != STB_LOCAL ||
            symbol.st_size == 0 || symbol.st_shndx == SHN_UNDEF ||
            symbol.st_shndx >= SHN_LORESERVE) {
            continue;
        }
        // Compiler-made objects (coverage counters, sanitizer metadata) are not the plug-in's.
        if (std::strncmp(name, "__", 2) == 0 || name[0] == '.') {
            continue;
        }
        const Elf64_Shdr& section = sections[symbol.st_shndx];
        if (!IsDataSection(section, sectionNames + section.sh_name)) {
            continue;
        }
        TVariable variable;
        variable.name = name;
        variable.address = reinterpret_cast<uint8_t*>(base + symbol.st_value);
        variable.loadTimeBytes.resize(symbol.st_size);
        CopyBytes(variable.loadTimeBytes.data(), variable.address, symbol.st_size);
        m_variables.push_back(std::move(variable));
    }
    munmap(mapping, fileSize);
    if (m_variables.empty()) {
        Fail("no file-scope variable in any of " + pluginSources);
    }
}

void CPluginState::Restore() const {
    for (const TVariable& variable : m_variables) {
        CopyBytes(variable.address, variable.loadTimeBytes.data(), variable.loadTimeBytes.size());
    }
}

std::vector<std::string> CPluginState::Names() const {
    std::vector<std::string> names;
    for (const TVariable& variable : m_variables) {
        names.push_back(variable.name);
    }
    return names;
}
