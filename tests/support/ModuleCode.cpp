#include "tests/support/ModuleCode.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <unwind.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <stdexcept>
#include <vector>

namespace {

using Address = std::uintptr_t;

enum class Owner { Module, CppLibrary, Foreign };

struct Function {
  Address begin;
  Address end;
  std::string name;
  Owner owner;
};

struct Range {
  Address begin;
  Address end;

  bool holds(Address address) const { return address >= begin && address < end; }
};

struct Code {
  std::vector<Range> module;
  std::vector<Range> libraries;     // the C and the C++ library
  std::vector<Function> functions;  // of the module, in the order of their addresses

  const Function* find(Address address) const {
    auto after = std::upper_bound(functions.begin(), functions.end(), address,
                                  [](Address a, const Function& b) { return a < b.begin; });
    if (after == functions.begin() || std::prev(after)->end <= address) return nullptr;
    return &*std::prev(after);
  }
};

std::atomic<const Code*> loadedCode{nullptr};
int instances = 0;  // of LoadedModuleCode

bool beginsWithAny(std::string_view text, std::initializer_list<std::string_view> beginnings) {
  return std::any_of(beginnings.begin(), beginnings.end(),
                     [&](std::string_view each) { return text.starts_with(each); });
}

Owner ownerOf(std::string_view mangled) {
  // A local entity belongs to whatever its function belongs to.
  while (mangled.starts_with("_ZZ")) mangled.remove_prefix(1);
  if (mangled.starts_with("Z")) mangled.remove_prefix(1);
  if (mangled.starts_with("_Z")) mangled.remove_prefix(2);
  if (mangled.starts_with("N")) mangled.remove_prefix(1);
  if (mangled.starts_with("K")) mangled.remove_prefix(1);
  if (beginsWithAny(mangled, {"St", "Sa", "Sb", "Ss", "9__gnu_cxx"})) return Owner::CppLibrary;
  if (beginsWithAny(mangled, {"4grpc", "6google", "8sonalith"})) return Owner::Foreign;
  return Owner::Module;
}

void addFunctions(const std::string& path, Address base, std::vector<Function>& functions) {
  std::string bytes(std::filesystem::file_size(path), '\0');
  std::ifstream(path, std::ios::binary).read(bytes.data(), std::ssize(bytes));
  const auto at = [&](std::size_t offset) { return bytes.data() + offset; };
  const auto& header = *reinterpret_cast<const Elf64_Ehdr*>(at(0));
  const auto* sections = reinterpret_cast<const Elf64_Shdr*>(at(header.e_shoff));
  for (int i = 0; i < header.e_shnum; ++i) {
    if (sections[i].sh_type != SHT_SYMTAB) continue;
    const char* const names = at(sections[sections[i].sh_link].sh_offset);
    const auto* symbol = reinterpret_cast<const Elf64_Sym*>(at(sections[i].sh_offset));
    const auto* const end = symbol + sections[i].sh_size / sizeof(Elf64_Sym);
    for (; symbol != end; ++symbol) {
      if (ELF64_ST_TYPE(symbol->st_info) != STT_FUNC || symbol->st_size == 0) continue;
      const char* const name = names + symbol->st_name;
      const Address begin = base + symbol->st_value;
      functions.push_back({begin, begin + symbol->st_size, name, ownerOf(name)});
    }
  }
  std::sort(functions.begin(), functions.end(),
            [](const Function& a, const Function& b) { return a.begin < b.begin; });
}

int addFile(dl_phdr_info* info, std::size_t, void* result) {
  auto& code = *static_cast<Code*>(result);
  const std::string path = info->dlpi_name;
  const std::string name = path.substr(path.rfind('/') + 1);
  const bool isModule = name == "grpc-gateway.so";
  const bool isLibrary = beginsWithAny(name, {"libstdc++.so", "libc.so"});
  if (!isModule && !isLibrary) return 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& part = info->dlpi_phdr[i];
    if (part.p_type != PT_LOAD) continue;
    const Address begin = info->dlpi_addr + part.p_vaddr;
    (isModule ? code.module : code.libraries).push_back({begin, begin + part.p_memsz});
  }
  if (isModule) addFunctions(path, info->dlpi_addr, code.functions);
  return 0;
}

Owner ownerOf(const Code& code, Address address) {
  const auto holds = [&](const Range& range) { return range.holds(address); };
  if (std::any_of(code.libraries.begin(), code.libraries.end(), holds)) return Owner::CppLibrary;
  if (std::none_of(code.module.begin(), code.module.end(), holds)) return Owner::Foreign;
  const Function* const function = code.find(address);
  return function != nullptr ? function->owner : Owner::Module;
}

// A walk up the stack. The first frame outside the C and C++ libraries determines the owner.
struct Walk {
  const Code& code;
  const Address from;
  Callers& callers;
  std::size_t depth = 0;
  bool entered = false;
  Owner owner = Owner::CppLibrary;
};

_Unwind_Reason_Code visit(_Unwind_Context* frame, void* state) {
  auto& walk = *static_cast<Walk*>(state);
  const Address address = _Unwind_GetIP(frame);
  if (!walk.entered && address != walk.from) return _URC_NO_REASON;
  walk.entered = true;
  // The last element stays null.
  if (walk.depth + 1 == walk.callers.addresses.size()) return _URC_NORMAL_STOP;
  // An address as a pointer to nothing in particular.
  walk.callers.addresses[walk.depth++] =
      reinterpret_cast<const void*>(address);  // NOLINT(performance-no-int-to-ptr)
  if (walk.owner == Owner::CppLibrary) walk.owner = ownerOf(walk.code, address - 1);
  return walk.owner == Owner::Foreign ? _URC_NORMAL_STOP : _URC_NO_REASON;
}

std::string nameOf(const void* returnAddress) {
  const Address address = reinterpret_cast<Address>(returnAddress) - 1;
  const Code* const code = loadedCode;
  const Function* const function = code != nullptr ? code->find(address) : nullptr;
  if (function != nullptr) return function->name;
  Dl_info info{};
  if (dladdr(returnAddress, &info) == 0) return "?";
  if (info.dli_sname != nullptr) return info.dli_sname;
  const std::string_view file = info.dli_fname;
  return "(" + std::string(file.substr(file.rfind('/') + 1)) + ")";
}

}  // namespace

int Callers::count(std::string_view part) const {
  int found = 0;
  for (const void* address : addresses) {
    if (address == nullptr) break;
    found += nameOf(address).find(part) != std::string::npos;
  }
  return found;
}

std::string Callers::innermostOwn() const {
  const Code* const code = loadedCode;
  for (const void* address : addresses) {
    if (address == nullptr || code == nullptr) break;
    const Function* const function = code->find(reinterpret_cast<Address>(address) - 1);
    if (function != nullptr && function->owner == Owner::Module) return function->name;
  }
  return "";
}

std::string Callers::text() const {
  std::string lines;
  for (const void* address : addresses) {
    if (address == nullptr) break;
    lines += "  " + nameOf(address) + "\n";
  }
  return lines;
}

LoadedModuleCode::LoadedModuleCode() {
  if (instances++ > 0) return;
  // Never freed, because another thread may still be reading it when this object is destroyed.
  static std::list<Code> allCode;
  Code& code = allCode.emplace_back();
  dl_iterate_phdr(addFile, &code);
  if (code.functions.empty()) throw std::runtime_error("no module with symbols is loaded");
  loadedCode = &code;
}

LoadedModuleCode::~LoadedModuleCode() {
  if (--instances == 0) loadedCode = nullptr;
}

bool isOwnRequest(const void* returnAddress, Callers& callers) {
  const Code* const code = loadedCode;
  if (code == nullptr) return false;
  Walk walk{*code, reinterpret_cast<Address>(returnAddress), callers};
  _Unwind_Backtrace(visit, &walk);
  return walk.owner == Owner::Module;
}
