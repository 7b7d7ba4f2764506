#include "support/import_hook.h"

#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace kel::testing {
namespace {

struct Search {
  const char* symbol;
  std::vector<void**>* slots;
};

struct Dynamic {
  const ElfW(Sym) * symbols = nullptr;
  const char* strings = nullptr;
  const ElfW(Rela) * tables[2] = {};  // of calls through the PLT, and of other addresses
  size_t sizes[2] = {};
};

Dynamic read_dynamic(const ElfW(Dyn) * entry) {
  Dynamic d;
  for (; entry->d_tag != DT_NULL; ++entry) {
    const auto address = entry->d_un.d_ptr;
    switch (entry->d_tag) {
      case DT_SYMTAB:
        d.symbols = reinterpret_cast<const ElfW(Sym)*>(address);
        break;
      case DT_STRTAB:
        d.strings = reinterpret_cast<const char*>(address);
        break;
      case DT_JMPREL:
        d.tables[0] = reinterpret_cast<const ElfW(Rela)*>(address);
        break;
      case DT_PLTRELSZ:
        d.sizes[0] = entry->d_un.d_val;
        break;
      case DT_RELA:
        d.tables[1] = reinterpret_cast<const ElfW(Rela)*>(address);
        break;
      case DT_RELASZ:
        d.sizes[1] = entry->d_un.d_val;
        break;
      default:
        break;
    }
  }
  return d;
}

int collect_slots(struct dl_phdr_info* object, size_t, void* data) {
  auto* search = static_cast<Search*>(data);
  if (std::strstr(object->dlpi_name, "libkel.so") == nullptr) return 0;
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    if (object->dlpi_phdr[i].p_type != PT_DYNAMIC) continue;
    const Dynamic d = read_dynamic(
        reinterpret_cast<const ElfW(Dyn)*>(object->dlpi_addr + object->dlpi_phdr[i].p_vaddr));
    for (int table = 0; table < 2; ++table) {
      for (size_t k = 0; k < d.sizes[table] / sizeof(ElfW(Rela)); ++k) {
        const ElfW(Rela)& entry = d.tables[table][k];
        const auto type = ELF64_R_TYPE(entry.r_info);
        if (type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT) continue;
        const ElfW(Sym)& symbol = d.symbols[ELF64_R_SYM(entry.r_info)];
        if (std::strcmp(d.strings + symbol.st_name, search->symbol) == 0)
          search->slots->push_back(reinterpret_cast<void**>(object->dlpi_addr + entry.r_offset));
      }
    }
  }
  return 1;
}

void write_slot(void** slot, void* value) {
  // The import slots are read-only once the library is loaded.
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  auto* start = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(slot) & ~(page - 1));
  if (mprotect(start, page, PROT_READ | PROT_WRITE) != 0)
    throw std::logic_error("cannot make import slots writable");
  *slot = value;
}

}  // namespace

ImportHook::ImportHook(const char* symbol, void* replacement) {
  Search search{symbol, &slots_};
  dl_iterate_phdr(collect_slots, &search);
  if (slots_.empty()) throw std::logic_error("the library does not import " + std::string(symbol));
  original_ = *slots_.front();
  for (void** slot : slots_) write_slot(slot, replacement);
}

ImportHook::~ImportHook() {
  for (void** slot : slots_) *slot = original_;
}

}  // namespace kel::testing
