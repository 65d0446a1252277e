// SPDX-License-Identifier: MIT
//
// Fault injection for what Mini-XML allocates itself.  The linker's --wrap reaches the calls of the
// library and of the tests, but not those inside another shared library: here Mini-XML's table of
// imported functions is pointed at the same gates, before main() runs.  This needs no Mini-XML of
// our own and goes together with every sanitizer, whose allocator stands behind the gates.
#include <link.h>
#include <mxml.h>
#include <stdarg.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {
void *__wrap_malloc(size_t nSize);
void *__wrap_calloc(size_t nCount, size_t nSize);
void *__wrap_realloc(void *pvOld, size_t nSize);
void __wrap_free(void *pvBlock);
char *__wrap_strdup(const char *szText);
int __wrap_vasprintf(char **pszText, const char *szFormat, va_list args);
}

namespace
{

// What vasprintf() is called in a library built with fortified functions.
int VasprintfChk(char **pszText, int, const char *szFormat, va_list args)
{
    return __wrap_vasprintf(pszText, szFormat, args);
}

const struct {
    const char *szName;
    void *pvGate;
} kGates[] = {
    {"malloc", reinterpret_cast<void *>(__wrap_malloc)},
    {"calloc", reinterpret_cast<void *>(__wrap_calloc)},
    {"realloc", reinterpret_cast<void *>(__wrap_realloc)},
    {"free", reinterpret_cast<void *>(__wrap_free)},
    {"strdup", reinterpret_cast<void *>(__wrap_strdup)},
    {"vasprintf", reinterpret_cast<void *>(__wrap_vasprintf)},
    {"__vasprintf_chk", reinterpret_cast<void *>(VasprintfChk)},
};

#if UINTPTR_MAX == UINT32_MAX
using Relocation = ElfW(Rel);
constexpr int kTable = DT_REL, kTableSize = DT_RELSZ;
size_t SymbolOf(const Relocation &relocation)
{
    return ELF32_R_SYM(relocation.r_info);
}
#else
using Relocation = ElfW(Rela);
constexpr int kTable = DT_RELA, kTableSize = DT_RELASZ;
size_t SymbolOf(const Relocation &relocation)
{
    return ELF64_R_SYM(relocation.r_info);
}
#endif

// The slot may lie in what the loader has made read-only.
void Point(void **ppvSlot, void *pvGate)
{
    const auto nPage = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t nStart = reinterpret_cast<uintptr_t>(ppvSlot) & ~(nPage - 1);
    if (mprotect(reinterpret_cast<void *>(nStart), nPage, PROT_READ | PROT_WRITE) == 0)
        *ppvSlot = pvGate;
}

void PointTable(const dl_phdr_info &library, const ElfW(Addr) * pnDynamic, int nTable, int nSize)
{
    const auto *ptSymbols = reinterpret_cast<const ElfW(Sym) *>(pnDynamic[DT_SYMTAB]);
    const auto *szNames = reinterpret_cast<const char *>(pnDynamic[DT_STRTAB]);
    const auto *ptRelocations = reinterpret_cast<const Relocation *>(pnDynamic[nTable]);
    for (size_t i = 0; i < pnDynamic[nSize] / sizeof(Relocation); ++i)
        for (const auto &gate : kGates)
            if (strcmp(szNames + ptSymbols[SymbolOf(ptRelocations[i])].st_name, gate.szName) == 0)
                Point(reinterpret_cast<void **>(library.dlpi_addr + ptRelocations[i].r_offset),
                      gate.pvGate);
}

int PointLibrary(dl_phdr_info *ptLibrary, size_t, void *)
{
    if (!strstr(ptLibrary->dlpi_name, "/libmxml.so"))
        return 0;
    ElfW(Addr) anDynamic[DT_NUM] = {};
    for (size_t i = 0; i < ptLibrary->dlpi_phnum; ++i) {
        if (ptLibrary->dlpi_phdr[i].p_type != PT_DYNAMIC)
            continue;
        const auto *pt = reinterpret_cast<const ElfW(Dyn) *>(ptLibrary->dlpi_addr +
                                                             ptLibrary->dlpi_phdr[i].p_vaddr);
        for (; pt->d_tag != DT_NULL; ++pt)
            if (pt->d_tag < DT_NUM)
                anDynamic[pt->d_tag] = pt->d_un.d_ptr;
    }
    PointTable(*ptLibrary, anDynamic, kTable, kTableSize);
    PointTable(*ptLibrary, anDynamic, DT_JMPREL, DT_PLTRELSZ);
    return 1;
}

// Mini-XML keeps a block for each thread that is never missed: the main thread's is made before
// blocks are counted.
[[maybe_unused]] const int s_nPointed =
    (mxmlSetErrorCallback(nullptr), dl_iterate_phdr(PointLibrary, nullptr));

} // namespace
