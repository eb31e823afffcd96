#include "apps/codecs.h"

#include <dlfcn.h>
#include <sys/mman.h>

#include <filesystem>
#include <new>

#include "apps/commands.h"
#include "velostrix/velostrix_host.h"

namespace velostrix::cli {
namespace {

// Where they do not find it, some of the libraries end the program instead of failing to load.
void RequireRoom() {
  constexpr size_t kRoom = size_t{192} << 20U;
  void* const room = mmap(nullptr, kRoom, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (room == MAP_FAILED) throw std::bad_alloc();
  munmap(room, kRoom);
}

// In the folder of the host library.
std::string LibraryFile() {
  Dl_info host = {};
  dladdr(reinterpret_cast<void*>(&VelostrixLibraryVersion), &host);
  const std::filesystem::path file = host.dli_fname == nullptr ? "" : host.dli_fname;
  return file.parent_path() / VELOSTRIX_CODECS_FILE;
}

const Codecs& Load() {
  RequireRoom();
  void* const library = dlopen(LibraryFile().c_str(), RTLD_NOW);
  void* const codecs = library == nullptr ? nullptr : dlsym(library, "VelostrixCodecs");
  if (codecs == nullptr) {
    throw Failure(std::string("files other than PNG need OpenCV's codecs: ") + dlerror());
  }
  return *reinterpret_cast<const Codecs* (*)()>(codecs)();
}

}  // namespace

const Codecs& LoadCodecs() {
  static const Codecs& codecs = Load();
  return codecs;
}

}  // namespace velostrix::cli
