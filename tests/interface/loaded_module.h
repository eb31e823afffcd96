// The built module as hosts see it: loaded at run time, its entry points under either of their
// names.
#pragma once

#include <dlfcn.h>

#include <opencv2/core/mat.hpp>
#include <stdexcept>
#include <string>

#include "velostrix/uncalibration.h"

namespace velostrix {

enum class Names { kPlain, kCsharp };

struct LoadedModule {
  decltype(&CreateVelostrixUnCalibrationToolPtr_CPU) create;
  decltype(&SetVelostrixUnCalibrationToolParam_CPU) set_param;
  decltype(&SetVelostrixUnCalibrationToolROI_CPU) set_roi;
  decltype(&ClearVelostrixUnCalibrationToolROI_CPU) clear_roi;
  decltype(&InitialVelostrixUnCalibrationToolImage_CPU) initial_image;
  decltype(&SetVelostrixUnCalibrationToolImage_CPU) set_image;                // the plain name's
  decltype(&SetVelostrixUnCalibrationToolImage_CPU_csharp) set_image_record;  // the other's
  decltype(&ClearVelostrixUnCalibrationToolImage_CPU) clear_image;
  decltype(&RunVelostrixUnCalibration_CPU_uncali) run_uncali;
  decltype(&RunVelostrixUnCalibration_CPU_cali) run_cali;
  decltype(&RunVelostrixUnCalibration_CPU_partrows_uncali) run_partrows;
  decltype(&RunVelostrixUnCalibration_CPU_partcols_uncali) run_partcols;
  decltype(&ReleaseVelostrixUnCalibrationToolImage_CPU) release_image;
  decltype(&DestroyImageArrayCPU) destroy_image_array;
  decltype(&DestroyVelostrixUnCalibrationToolPtr_CPU) destroy;
};

inline LoadedModule LoadModule(Names names) {
  static void* const handle = dlopen(VELOSTRIX_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) throw std::runtime_error(dlerror());

  LoadedModule module = {};
  const auto find = [](const std::string& name, auto& entry) {
    entry = reinterpret_cast<std::remove_reference_t<decltype(entry)>>(dlsym(handle, name.c_str()));
    if (entry == nullptr) throw std::runtime_error("the module does not export " + name);
  };
  const std::string csharp = names == Names::kCsharp ? "_csharp" : "";
  find("CreateVelostrixUnCalibrationToolPtr_CPU" + csharp, module.create);
  find("SetVelostrixUnCalibrationToolParam_CPU" + csharp, module.set_param);
  find("SetVelostrixUnCalibrationToolROI_CPU" + csharp, module.set_roi);
  find("ClearVelostrixUnCalibrationToolROI_CPU" + csharp, module.clear_roi);
  find("InitialVelostrixUnCalibrationToolImage_CPU" + csharp, module.initial_image);
  find("SetVelostrixUnCalibrationToolImage_CPU", module.set_image);
  find("SetVelostrixUnCalibrationToolImage_CPU_csharp", module.set_image_record);
  find("ClearVelostrixUnCalibrationToolImage_CPU" + csharp, module.clear_image);
  find("RunVelostrixUnCalibration_CPU" + csharp + "_uncali", module.run_uncali);
  find("RunVelostrixUnCalibration_CPU" + csharp + "_cali", module.run_cali);
  find("RunVelostrixUnCalibration_CPU_partrows" + csharp + "_uncali", module.run_partrows);
  find("RunVelostrixUnCalibration_CPU_partcols" + csharp + "_uncali", module.run_partcols);
  find("ReleaseVelostrixUnCalibrationToolImage_CPU" + csharp, module.release_image);
  find("DestroyImageArrayCPU" + csharp, module.destroy_image_array);
  find("DestroyVelostrixUnCalibrationToolPtr_CPU" + csharp, module.destroy);
  return module;
}

}  // namespace velostrix
