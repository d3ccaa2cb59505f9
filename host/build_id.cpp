#include "zelhost/build_id.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cstring>

namespace arv {
namespace nnhal {
namespace host {

namespace {

struct Search {
    const link_map* library;
    std::string id;
};

// Notes are 4-byte aligned records: name size, descriptor size, type,
// then the padded name and descriptor.
std::string buildIdIn(const unsigned char* notes, size_t size) {
    size_t at = 0;
    while (size - at >= sizeof(ElfW(Nhdr))) {
        ElfW(Nhdr) header;
        std::memcpy(&header, notes + at, sizeof header);
        at += sizeof header;
        const size_t nameBytes = (header.n_namesz + 3u) & ~size_t{3};
        const size_t descBytes = (header.n_descsz + 3u) & ~size_t{3};
        if (nameBytes > size - at || descBytes > size - at - nameBytes) break;
        const char* name = reinterpret_cast<const char*>(notes + at);
        if (header.n_type == NT_GNU_BUILD_ID && header.n_namesz == 4 && std::memcmp(name, "GNU", 4) == 0) {
            static const char kHex[] = "0123456789abcdef";
            std::string id;
            for (size_t i = 0; i < header.n_descsz; ++i) {
                const unsigned char byte = notes[at + nameBytes + i];
                id += kHex[byte >> 4];
                id += kHex[byte & 15];
            }
            return id;
        }
        at += nameBytes + descBytes;
    }
    return "";
}

int visit(dl_phdr_info* info, size_t, void* data) {
    auto* search = static_cast<Search*>(data);
    if (info->dlpi_addr != search->library->l_addr || info->dlpi_name == nullptr ||
        std::strcmp(info->dlpi_name, search->library->l_name) != 0) {
        return 0;
    }
    for (ElfW(Half) i = 0; i < info->dlpi_phnum && search->id.empty(); ++i) {
        const ElfW(Phdr)& segment = info->dlpi_phdr[i];
        if (segment.p_type != PT_NOTE) continue;
        search->id =
            buildIdIn(reinterpret_cast<const unsigned char*>(info->dlpi_addr + segment.p_vaddr), segment.p_memsz);
    }
    return 1;
}

}  // namespace

std::string loadedBuildId(void* handle) {
    link_map* library = nullptr;
    if (handle == nullptr || dlinfo(handle, RTLD_DI_LINKMAP, &library) != 0 || library == nullptr) return "";
    Search search{library, ""};
    dl_iterate_phdr(visit, &search);
    return search.id;
}

}  // namespace host
}  // namespace nnhal
}  // namespace arv
