#include "apps/codecs.h"

#include <dlfcn.h>

#include "apps/commands.h"

namespace velostrix::cli {
namespace {

const Codecs& Load() {
  void* const library = dlopen(VELOSTRIX_CODECS_FILE, RTLD_NOW);
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
