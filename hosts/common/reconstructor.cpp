// The reconstructor behind the flat C interface; no exception leaves this file.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include "diagnostics.h"
#include "recipe.h"
#include "velostrix/height_view.hpp"
#include "velostrix/mask.hpp"
#include "velostrix/tool.hpp"
#include "velostrix/velostrix_host.h"
#include "velostrix/version.h"

using velostrix::Error;

struct VelostrixReconstructor {
  std::atomic_flag is_busy = ATOMIC_FLAG_INIT;
  mutable std::mutex message_mutex;
  VelostrixMessage message = {};

  // Used by the one thread that set is_busy.
  velostrix::Tool tool;
  velostrix::Recipe recipe;  // as prepared
  std::optional<velostrix::Results> results;
  std::vector<std::string> warnings;

  void Forget() {
    const cv::Mat mask = tool.mask();
    tool = velostrix::Tool();
    tool.SetMask(mask);
    results.reset();
  }
};

namespace {

void Copy(const char* text, VelostrixMessage* message) noexcept {
  if (message != nullptr) std::snprintf(message->text, sizeof message->text, "%s", text);
}

// Calls `work` and returns its status; passes the text of an exception to `report`.
template <typename Work, typename Report>
VelostrixStatus Guarded(const Work& work, const Report& report) noexcept {
  const auto failed = [&](VelostrixStatus status, const char* text) {
    report(text);
    return status;
  };
  const char* const no_memory = VelostrixStatusText(VELOSTRIX_OUT_OF_MEMORY);
  try {
    work();
    return VELOSTRIX_OK;
  } catch (const velostrix::WrongState& e) {
    return failed(VELOSTRIX_WRONG_STATE, e.what());
  } catch (const velostrix::OutOfMemory& e) {
    return failed(VELOSTRIX_OUT_OF_MEMORY, e.what());
  } catch (const Error& e) {
    return failed(VELOSTRIX_INVALID_ARGUMENT, e.what());
  } catch (const std::bad_alloc&) {
    return failed(VELOSTRIX_OUT_OF_MEMORY, no_memory);
  } catch (const cv::Exception& e) {
    const bool is_memory = e.code == cv::Error::StsNoMem;
    return is_memory ? failed(VELOSTRIX_OUT_OF_MEMORY, no_memory)
                     : failed(VELOSTRIX_FAILED, e.err.c_str());
  } catch (const std::exception& e) {
    return failed(VELOSTRIX_FAILED, e.what());
  } catch (...) {
    return failed(VELOSTRIX_FAILED, "an exception that says nothing");
  }
}

template <typename Work>
VelostrixStatus GuardedFor(VelostrixMessage* message, const Work& work) noexcept {
  return Guarded(work, [&](const char* text) { Copy(text, message); });
}

// Calls the work on the reconstructor for this thread alone.
template <typename Work>
VelostrixStatus Use(VelostrixReconstructor* reconstructor, const Work& work) noexcept {
  if (reconstructor == nullptr) return VELOSTRIX_INVALID_ARGUMENT;
  VelostrixReconstructor& r = *reconstructor;
  if (r.is_busy.test_and_set(std::memory_order_acquire)) return VELOSTRIX_BUSY;
  const VelostrixStatus status = Guarded([&] { work(r); },
                                         [&](const char* text) {
                                           const std::lock_guard lock(r.message_mutex);
                                           Copy(text, &r.message);
                                         });
  if (status == VELOSTRIX_OUT_OF_MEMORY || status == VELOSTRIX_FAILED) r.Forget();
  r.is_busy.clear(std::memory_order_release);
  return status;
}

template <typename T>
T& Required(T* pointer, const char* name) {
  if (pointer == nullptr) throw Error(std::string(name) + " is null");
  return *pointer;
}

template <typename T>
void RequireSize(T* record, const char* name) {
  if (Required(record, name).struct_size == sizeof *record) return;
  throw Error(std::string(name) + " of " + std::to_string(record->struct_size) +
              " bytes; expected " + std::to_string(sizeof *record) + ", set struct_size");
}

velostrix::Recipe RecipeOf(const VelostrixSettings* settings) {
  return velostrix::FromRecord(Required(settings, "settings"));
}

// A size that is not one counts as empty.
cv::Size SizeOf(int32_t width, int32_t height) {
  return width > 0 && height > 0 ? cv::Size(width, height) : cv::Size();
}

// A header over the image, not a copy.
cv::Mat Wrap(const VelostrixImage& image, const std::string& name) {
  const auto refuse = [&](const std::string& what) { throw Error(name + what); };
  const int64_t sample = image.sample_bytes;
  if (image.data == nullptr || SizeOf(image.width, image.height).empty()) refuse(" is empty");
  if (sample != 1 && sample != 2) {
    refuse(" has samples of " + std::to_string(sample) + " bytes; expected 1 or 2");
  }
  const int64_t row = image.width * sample;
  const int64_t stride = image.row_stride == 0 ? row : image.row_stride;
  const auto address = reinterpret_cast<uintptr_t>(image.data);
  if (stride < row || stride % sample != 0 || address % static_cast<uintptr_t>(sample) != 0) {
    refuse(" has rows of " + std::to_string(row) + " bytes every " + std::to_string(stride) +
           "; expected a row_stride of no less, and samples aligned to their size");
  }
  return {image.height, image.width, sample == 1 ? CV_8UC1 : CV_16UC1,
          const_cast<void*>(image.data), static_cast<size_t>(stride)};
}

// The image as a run takes it; a header where no conversion is needed.
cv::Mat Take(const VelostrixImage& image, int index, const velostrix::Recipe& recipe) {
  const std::string name = "image " + std::to_string(index + 1);
  return velostrix::ToLevels(Wrap(image, name), recipe, static_cast<size_t>(index), name);
}

std::vector<cv::Mat> Take(const VelostrixImage* images, int32_t count,
                          const velostrix::Recipe& recipe) {
  Required(images, "images");
  velostrix::CheckCount(count);
  velostrix::CheckFlat(recipe, count);
  std::vector<cv::Mat> mats;
  mats.reserve(static_cast<size_t>(count));
  for (int32_t k = 0; k < count; ++k) mats.push_back(Take(images[k], k, recipe));
  velostrix::Check(mats, recipe.parameters);
  return mats;
}

const cv::Mat& ResultOf(const VelostrixReconstructor& r, int32_t output) {
  if (output < 0 || output >= VELOSTRIX_OUTPUT_COUNT) {
    throw Error("output " + std::to_string(output) + "; expected 0 to " +
                std::to_string(VELOSTRIX_OUTPUT_COUNT - 1));
  }
  if (!r.results) throw velostrix::WrongState("no results yet; run first");
  const auto name = static_cast<velostrix::Output>(output);
  const cv::Mat& result = (*r.results)[name];
  if (result.empty()) {
    throw Error(std::string(Name(name)) + " was not made; ask for it in the outputs");
  }
  return result;
}

void CopyRows(const cv::Mat& result, void* out, int64_t row_stride, int64_t capacity) {
  const auto row = static_cast<int64_t>(result.cols * result.elemSize());
  const int64_t stride = row_stride == 0 ? row : row_stride;
  const int64_t gaps = result.rows - 1;
  if (stride < row || capacity < row || (gaps > 0 && stride > (capacity - row) / gaps)) {
    throw Error("the result has " + std::to_string(result.rows) + " rows of " +
                std::to_string(row) + " bytes; a row_stride of " + std::to_string(stride) +
                " and a capacity of " + std::to_string(capacity) + " bytes do not hold them");
  }
  auto* to = &Required(static_cast<uint8_t*>(out), "out");
  for (int i = 0; i < result.rows; ++i) {
    std::memcpy(to + i * stride, result.ptr(i), static_cast<size_t>(row));
  }
}

}  // namespace

const char* VelostrixStatusText(VelostrixStatus status) {
  switch (status) {
    case VELOSTRIX_OK:
      return "done";
    case VELOSTRIX_INVALID_ARGUMENT:
      return "an argument is invalid";
    case VELOSTRIX_OUT_OF_MEMORY:
      return "out of memory; use a region or a smaller scale";
    case VELOSTRIX_WRONG_STATE:
      return "another call has to come first";
    case VELOSTRIX_BUSY:
      return "another thread is using this reconstructor; give each thread its own";
    case VELOSTRIX_FAILED:
      return "failed";
    default:
      return "no status";
  }
}

const char* VelostrixLibraryVersion() { return VELOSTRIX_VERSION; }

VelostrixStatus VelostrixCheckVersion(int32_t major, int32_t minor, VelostrixMessage* message) {
  return GuardedFor(message, [&] {
    const bool fits =
        major == VELOSTRIX_VERSION_MAJOR &&
        (major == 0 ? minor == VELOSTRIX_VERSION_MINOR : minor <= VELOSTRIX_VERSION_MINOR);
    if (fits) return;
    throw std::runtime_error("made for version " + std::to_string(major) + '.' +
                             std::to_string(minor) +
                             " of Velostrix, but the library that is loaded is " VELOSTRIX_VERSION
                             "; install the same version of both");
  });
}

VelostrixStatus VelostrixSetThreads(int32_t count) {
  constexpr int kAllCores = -1;  // for cv::setNumThreads
  if (count < 0) return VELOSTRIX_INVALID_ARGUMENT;
  return GuardedFor(nullptr, [&] { cv::setNumThreads(count == 0 ? kAllCores : count); });
}

int32_t VelostrixThreads() {
  int32_t count = 1;
  GuardedFor(nullptr, [&] { count = std::max(1, cv::getNumThreads()); });
  return count;
}

// ---- settings

VelostrixStatus VelostrixSettingsDefaults(VelostrixSettings* settings) {
  if (settings == nullptr || settings->struct_size != sizeof *settings) {
    return VELOSTRIX_INVALID_ARGUMENT;
  }
  *settings = ToRecord(velostrix::Recipe());
  return VELOSTRIX_OK;
}

VelostrixStatus VelostrixSettingsCheck(const VelostrixSettings* settings, int32_t count,
                                       int32_t width, int32_t height, VelostrixMessage* message) {
  return GuardedFor(message, [&] {
    velostrix::Check(count, SizeOf(width, height), RecipeOf(settings).parameters);
  });
}

VelostrixStatus VelostrixWorkingSize(const VelostrixSettings* settings, int32_t width,
                                     int32_t height, int32_t* working_width,
                                     int32_t* working_height) {
  return GuardedFor(nullptr, [&] {
    const velostrix::Recipe recipe = RecipeOf(settings);
    const cv::Size size = velostrix::WorkingSize(SizeOf(width, height), recipe.parameters);
    Required(working_width, "working_width");
    Required(working_height, "working_height") = size.height;
    *working_width = size.width;
  });
}

VelostrixStatus VelostrixSettingsToJson(const VelostrixSettings* settings, char* text,
                                        int64_t capacity, int64_t* length,
                                        VelostrixMessage* message) {
  return GuardedFor(message, [&] {
    const std::string json = velostrix::ToJson(RecipeOf(settings));
    const auto size = static_cast<int64_t>(json.size());
    if (length != nullptr) *length = size;
    if (capacity <= size) {
      throw Error("the recipe takes " + std::to_string(size + 1) + " bytes; capacity has " +
                  std::to_string(capacity));
    }
    std::memcpy(&Required(text, "text"), json.c_str(), json.size() + 1);
  });
}

VelostrixStatus VelostrixSettingsFromJson(const char* text, int64_t length,
                                          VelostrixSettings* settings, VelostrixMessage* message) {
  return GuardedFor(message, [&] {
    if (Required(settings, "settings").struct_size != sizeof *settings) {
      static_cast<void>(velostrix::FromRecord(*settings));  // says so
    }
    Required(text, "text");
    if (length < 0) throw Error("length " + std::to_string(length) + "; expected 0 or more");
    *settings = ToRecord(velostrix::FromJson({text, static_cast<size_t>(length)}));
  });
}

VelostrixStatus VelostrixFitFlat(const VelostrixImage* references, int32_t count,
                                 VelostrixSettings* settings, VelostrixMessage* message) {
  return GuardedFor(message, [&] {
    velostrix::Recipe recipe = RecipeOf(settings);
    Required(references, "references");
    velostrix::CheckCount(count);
    std::vector<cv::Mat> mats;
    for (int32_t k = 0; k < count; ++k) {
      const std::string name = "reference " + std::to_string(k + 1);
      const cv::Mat& mat = mats.emplace_back(Wrap(references[k], name));
      if (mat.depth() != CV_8U && velostrix::WhiteLevel(recipe) == 0) {
        static_cast<void>(velostrix::ToLevels(mat, recipe, 0, name));  // says so
      }
    }
    recipe.flat = velostrix::FitFlat(mats, velostrix::WhiteLevel(recipe));
    *settings = ToRecord(recipe);
  });
}

// ---- reconstructor

VelostrixStatus VelostrixReconstructorCreate(VelostrixReconstructor** out) {
  if (out == nullptr) return VELOSTRIX_INVALID_ARGUMENT;
  *out = nullptr;
  return GuardedFor(nullptr, [&] { *out = new VelostrixReconstructor; });
}

VelostrixStatus VelostrixReconstructorDestroy(VelostrixReconstructor* reconstructor) {
  if (reconstructor == nullptr) return VELOSTRIX_OK;
  if (reconstructor->is_busy.test_and_set(std::memory_order_acquire)) return VELOSTRIX_BUSY;
  delete reconstructor;
  return VELOSTRIX_OK;
}

VelostrixStatus VelostrixReconstructorMessage(const VelostrixReconstructor* reconstructor,
                                              VelostrixMessage* message) {
  if (reconstructor == nullptr || message == nullptr) return VELOSTRIX_INVALID_ARGUMENT;
  return GuardedFor(nullptr, [&] {
    const std::lock_guard lock(reconstructor->message_mutex);
    *message = reconstructor->message;
  });
}

VelostrixStatus VelostrixReconstructorSetMask(VelostrixReconstructor* reconstructor,
                                              const VelostrixImage* mask) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    r.tool.SetMask(mask == nullptr ? cv::Mat() : Wrap(*mask, "the mask"));
  });
}

VelostrixStatus VelostrixReconstructorMaskUnlit(VelostrixReconstructor* reconstructor,
                                                const VelostrixImage* images, int32_t count,
                                                const VelostrixSettings* settings, double* kept) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    const cv::Mat mask = velostrix::LitPixels(Take(images, count, RecipeOf(settings)));
    r.tool.SetMask(mask);
    if (kept != nullptr) *kept = cv::countNonZero(mask) / static_cast<double>(mask.total());
  });
}

VelostrixStatus VelostrixReconstructorPrepare(VelostrixReconstructor* reconstructor, int32_t count,
                                              int32_t width, int32_t height,
                                              const VelostrixSettings* settings) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    const velostrix::Recipe recipe = RecipeOf(settings);
    velostrix::CheckFlat(recipe, count);
    r.tool.Prepare(count, SizeOf(width, height), recipe.parameters);
    r.results.reset();
    r.recipe = recipe;
  });
}

VelostrixStatus VelostrixReconstructorSetImage(VelostrixReconstructor* reconstructor,
                                               const VelostrixImage* image) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    r.tool.SetImage(Take(Required(image, "image"), r.tool.images_set(), r.recipe));
  });
}

VelostrixStatus VelostrixReconstructorClearImages(VelostrixReconstructor* reconstructor) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) { r.tool.ClearImages(); });
}

VelostrixStatus VelostrixReconstructorRun(VelostrixReconstructor* reconstructor) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) { r.results = r.tool.RunViews(); });
}

VelostrixStatus VelostrixReconstructorReconstruct(VelostrixReconstructor* reconstructor,
                                                  const VelostrixImage* images, int32_t count,
                                                  const VelostrixSettings* settings) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    const velostrix::Recipe recipe = RecipeOf(settings);
    const std::vector<cv::Mat> mats = Take(images, count, recipe);
    r.results = r.tool.ReconstructViews(mats, recipe.parameters);
  });
}

// ---- results

VelostrixStatus VelostrixReconstructorResult(VelostrixReconstructor* reconstructor, int32_t output,
                                             VelostrixPlane* plane) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    const cv::Mat& result = ResultOf(r, output);
    Required(plane, "plane") = {result.data,       static_cast<int64_t>(result.step[0]),
                                result.cols,       result.rows,
                                result.channels(), static_cast<int32_t>(result.elemSize1())};
  });
}

VelostrixStatus VelostrixReconstructorCopyResult(VelostrixReconstructor* reconstructor,
                                                 int32_t output, void* out, int64_t row_stride,
                                                 int64_t capacity) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    CopyRows(ResultOf(r, output), out, row_stride, capacity);
  });
}

VelostrixStatus VelostrixViewHeight(const VelostrixImage* height, int32_t removed, int32_t border,
                                    const VelostrixImage* mask, void* out, int64_t row_stride,
                                    int64_t capacity, VelostrixHeightView* view,
                                    VelostrixMessage* message) {
  return GuardedFor(message, [&] {
    velostrix::recipe_detail::RequireOneOf(removed, "removed", velostrix::kSurfaceNames);
    const velostrix::HeightView made = velostrix::ViewHeight(
        Wrap(Required(height, "height"), "the height"), static_cast<velostrix::Surface>(removed),
        border, mask == nullptr ? cv::Mat() : Wrap(*mask, "the mask"));
    CopyRows(made.image, out, row_stride, capacity);
    if (view != nullptr) *view = {removed, made.border, made.black, made.white};
  });
}

VelostrixStatus VelostrixReconstructorOrientation(VelostrixReconstructor* reconstructor,
                                                  VelostrixOrientationFound* found) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    RequireSize(found, "found");
    if (!r.results) throw velostrix::WrongState("no results yet; run first");
    const velostrix::OrientationFound& o = r.tool.orientation();
    *found = {sizeof *found,
              o.is_clear,
              o.is_mirrored,
              o.is_turned,
              o.is_inverted,
              o.is_sign_open,
              o.has_mirrored_curvature,
              0,
              o.curl_as_is,
              o.curl_mirrored,
              o.turn};
  });
}

VelostrixStatus VelostrixReconstructorTimes(VelostrixReconstructor* reconstructor,
                                            VelostrixTimes* times) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    const velostrix::CallTimes& latest = r.tool.times();
    VelostrixTimes& to = Required(times, "times");
    to = {latest.parameters, latest.buffers, {}, latest.run};
    std::copy(latest.images.begin(), latest.images.end(), to.images);
  });
}

// ---- gains and diagnostics

VelostrixStatus VelostrixReconstructorChooseGains(VelostrixReconstructor* reconstructor,
                                                  const VelostrixImage* images, int32_t count,
                                                  VelostrixSettings* settings) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    const velostrix::Recipe recipe = RecipeOf(settings);
    const std::vector<cv::Mat> mats = Take(images, count, recipe);
    r.results.reset();  // pilot runs overwrite them
    *settings = ToRecord(velostrix::ChooseGains(r.tool, mats, recipe));
  });
}

VelostrixStatus VelostrixReconstructorDiagnose(VelostrixReconstructor* reconstructor,
                                               const VelostrixImage* images, int32_t count,
                                               const VelostrixSettings* settings,
                                               const char* const* names,
                                               VelostrixDiagnostics* diagnostics) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    const velostrix::Recipe recipe = RecipeOf(settings);
    const std::vector<cv::Mat> mats = Take(images, count, recipe);
    RequireSize(diagnostics, "diagnostics");
    std::vector<std::string> texts;
    for (size_t k = 0; k < mats.size(); ++k) {
      texts.push_back(names == nullptr ? "image " + std::to_string(k + 1)
                                       : &Required(names[k], "a name"));
    }
    VelostrixDiagnostics found = {};
    found.struct_size = sizeof found;
    r.warnings = velostrix::DiagnoseImages(mats, texts, recipe.parameters, r.tool.mask(), &found);
    *diagnostics = found;
  });
}

VelostrixStatus VelostrixReconstructorWarning(VelostrixReconstructor* reconstructor, int32_t index,
                                              VelostrixMessage* warning) {
  return Use(reconstructor, [&](VelostrixReconstructor& r) {
    if (index < 0 || index >= static_cast<int32_t>(r.warnings.size())) {
      throw Error("warning " + std::to_string(index) + "; there are " +
                  std::to_string(r.warnings.size()));
    }
    Copy(r.warnings[static_cast<size_t>(index)].c_str(), &Required(warning, "warning"));
  });
}
