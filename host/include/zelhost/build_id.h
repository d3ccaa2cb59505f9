// Identity of a loaded library: the GNU build-id note the linker writes
// into every ELF file it links (a hash of the file's contents), read from
// the library as it is mapped in this process.
#pragma once

#include <string>

namespace arv {
namespace nnhal {
namespace host {

// Build id of the library behind `handle` (a dlopen handle) in lowercase
// hex, e.g. "3f9a...": "" when the handle is null or the library carries
// no build-id note.
std::string loadedBuildId(void* handle);

}  // namespace host
}  // namespace nnhal
}  // namespace arv
