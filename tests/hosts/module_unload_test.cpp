// A host that unloads the module goes on: OpenMP threads that are still in it keep their code.
#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

TEST(ModuleUnload, CodeStaysWhereThreadsMayRunIt) {
  void* module = dlopen(VELOSTRIX_MODULE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();
  void* create = dlsym(module, "CreateVelostrixUnCalibrationToolPtr_CPU");
  ASSERT_NE(create, nullptr);
  ASSERT_EQ(dlclose(module), 0);
  EXPECT_NE(dlopen(VELOSTRIX_MODULE, RTLD_NOW | RTLD_NOLOAD), nullptr)
      << "the module was unmapped: link it with -z nodelete";
}

}  // namespace
