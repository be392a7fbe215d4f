// The plug-in as the host sees it: the shared library's dynamic symbol table, and loading it.

#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>

#include "ModuleTestHost.h"

namespace moduletest {
namespace {

struct TDynamicSymbol {
    std::string name;
    unsigned char type;     // STT_...
    unsigned char binding;  // STB_...
    bool defined;
};

template <typename T>
bool ReadAt(const std::string& image, uint64_t offset, T& value) {
    if (offset > image.size() || image.size() - offset < sizeof(T)) {
        return false;
    }
    std::memcpy(&value, image.data() + offset, sizeof(T));
    return true;
}

// The ELF records of this build's word size: the plug-in is a 64-bit file on x86-64 and a 32-bit
// one on the armhf target, and the test runs on the machine the plug-in was built for.
template <int Class>
struct TElfClass;
template <>
struct TElfClass<ELFCLASS64> {
    using THeader = Elf64_Ehdr;
    using TSection = Elf64_Shdr;
    using TSymbol = Elf64_Sym;
};
template <>
struct TElfClass<ELFCLASS32> {
    using THeader = Elf32_Ehdr;
    using TSection = Elf32_Shdr;
    using TSymbol = Elf32_Sym;
};
constexpr int kOwnClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
using TOwnElf = TElfClass<kOwnClass>;

#if defined(__x86_64__)
constexpr unsigned kOwnMachine = EM_X86_64;
#elif defined(__arm__)
constexpr unsigned kOwnMachine = EM_ARM;
#elif defined(__aarch64__)
constexpr unsigned kOwnMachine = EM_AARCH64;
#else
#error "PluginExportsTest: name this machine's ELF e_machine"
#endif

// The symbols of the .dynsym section of an ELF file for this build's machine.
std::vector<TDynamicSymbol> DynamicSymbols(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    const std::string image((std::istreambuf_iterator<char>(stream)),
                            std::istreambuf_iterator<char>());
    TOwnElf::THeader header;
    if (!ReadAt(image, 0, header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != kOwnClass) {
        ADD_FAILURE() << path << " is no " << (kOwnClass == ELFCLASS64 ? 64 : 32)
                      << "-bit ELF file";
        return {};
    }
    EXPECT_EQ(header.e_machine, kOwnMachine) << path << " is built for another machine";
    std::vector<TDynamicSymbol> symbols;
    for (unsigned index = 0; index < header.e_shnum; ++index) {
        TOwnElf::TSection section;
        if (!ReadAt(image, header.e_shoff + uint64_t{index} * header.e_shentsize, section) ||
            section.sh_type != SHT_DYNSYM) {
            continue;
        }
        TOwnElf::TSection strings;
        if (!ReadAt(image, header.e_shoff + uint64_t{section.sh_link} * header.e_shentsize,
                    strings)) {
            ADD_FAILURE() << "no string table for .dynsym";
            return {};
        }
        for (uint64_t offset = 0; offset + sizeof(TOwnElf::TSymbol) <= section.sh_size;
             offset += sizeof(TOwnElf::TSymbol)) {
            TOwnElf::TSymbol symbol;
            if (!ReadAt(image, section.sh_offset + offset, symbol)) {
                break;
            }
            const uint64_t nameOffset = strings.sh_offset + symbol.st_name;
            const std::string name =
                nameOffset < image.size() ? std::string(image.c_str() + nameOffset) : "";
            // ELF32_ST_TYPE and ELF64_ST_TYPE (and _BIND) are the same split of st_info.
            symbols.push_back({name, static_cast<unsigned char>(ELF64_ST_TYPE(symbol.st_info)),
                               static_cast<unsigned char>(ELF64_ST_BIND(symbol.st_info)),
                               symbol.st_shndx != SHN_UNDEF});
        }
    }
    return symbols;
}

TEST(PluginExportsTest, TheOnlyDefinedDynamicSymbolsAreFeatureTypeAndFeatureCreate2) {
    std::set<std::string> defined;
    for (const TDynamicSymbol& symbol : DynamicSymbols(MODEMLOADER_PLUGIN_PATH)) {
        if (symbol.defined && (symbol.binding == STB_GLOBAL || symbol.binding == STB_WEAK ||
                               symbol.binding == STB_GNU_UNIQUE)) {
            defined.insert(symbol.name);
            EXPECT_EQ(symbol.type, STT_FUNC) << symbol.name;
        }
    }
    EXPECT_EQ(defined, (std::set<std::string>{"FeatureCreate2", "FeatureType"}));
}

// The entry points carry plain, unmangled names: the host looks them up exactly so.
TEST(PluginExportsTest, EntryPointsAreFoundByTheirPlainNames) {
    void* plugin = dlopen(MODEMLOADER_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(plugin, nullptr) << dlerror();
    EXPECT_NE(dlsym(plugin, kFeatureTypeSymbol), nullptr);
    EXPECT_NE(dlsym(plugin, kFeatureCreate2Symbol), nullptr);
    EXPECT_EQ(dlsym(plugin, "_ZN12CModemLoaderD0Ev"), nullptr) << "classes stay inside";
    EXPECT_EQ(dlsym(plugin, "sFakeTicks"), nullptr);
}

class PluginLoadTest : public CModuleTest {
protected:
    void SetUp() override {
        m_plugin = dlopen(MODEMLOADER_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(m_plugin, nullptr) << dlerror();
    }
    // The library stays loaded, as the host keeps its plug-ins: the fake loader the module
    // created lives on inside it.
    void* m_plugin = nullptr;
};

TEST_F(PluginLoadTest, FeatureTypeIsModemloader) {
    auto featureType = reinterpret_cast<TFeatureTypeFunction>(dlsym(m_plugin, kFeatureTypeSymbol));
    ASSERT_NE(featureType, nullptr);
    EXPECT_STREQ(featureType(), "modemloader");
}

TEST_F(PluginLoadTest, FeatureCreate2MakesAModuleThatAnswersTheHostAndIsDeletedByIt) {
    auto create = reinterpret_cast<TFeatureCreate2Function>(dlsym(m_plugin, kFeatureCreate2Symbol));
    ASSERT_NE(create, nullptr);
    IFeatureModule2* module = create(m_name, m_interfaces, m_broker, m_properties);
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(m_broker.Subscriptions().size(), 4u);
    EXPECT_TRUE(m_properties.Lookups().empty());

    Init();
    EXPECT_EQ(PublishedEvents(), std::vector<TPublished>{InitDone()});
    EXPECT_EQ(m_properties.Lookups().size(), 11u);

    delete module;
    const auto subscriptions = m_broker.Subscriptions();
    ASSERT_EQ(subscriptions.size(), 1u);
    EXPECT_EQ(subscriptions[0].filter.id, EVT_CONTROLLER_INIT);
}

}  // namespace
}  // namespace moduletest
