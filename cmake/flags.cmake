# Flags of our targets: velostrix_flags (arithmetic, warnings, hardening) for all of them, and
# velostrix_eigen for those that decompose.
#
# Element-wise results are the same bits for every vector width and processor, so nothing may
# reassociate or contract floating-point arithmetic; GCC contracts on ARM by default. errno and trap
# state are not needed: without them results are the same, and square roots and selects vectorise.
string(COMPARE EQUAL "${CMAKE_SYSTEM_PROCESSOR}" aarch64 is_arm64)

add_library(velostrix_flags INTERFACE)
if(MSVC)
  target_compile_options(velostrix_flags INTERFACE /fp:precise /arch:AVX /bigobj /W4
    $<$<BOOL:${VELOSTRIX_WERROR}>:/WX>)
else()
  target_compile_options(velostrix_flags INTERFACE
    $<$<NOT:$<BOOL:${is_arm64}>>:-mavx>
    -ffp-contract=off -fno-math-errno -fno-trapping-math
    -Wall -Wextra -Wpedantic -Wconversion
    -fstack-protector-strong
    $<$<BOOL:${VELOSTRIX_WERROR}>:-Werror>)
  # Fortified functions need an optimiser, and would hide calls from the sanitizers.
  if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    target_compile_options(velostrix_flags INTERFACE
      $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>)
  endif()
endif()
if(UNIX AND NOT APPLE)
  # All symbols are bound at the start, after which their tables are read-only; no stack is executable.
  target_link_options(velostrix_flags INTERFACE LINKER:-z,relro,-z,now,-z,noexecstack)
endif()

add_library(velostrix_eigen INTERFACE)
target_link_libraries(velostrix_eigen INTERFACE Eigen3::Eigen)
if(is_arm64)
  find_path(VELOSTRIX_SIMDE simde/x86/avx.h REQUIRED)
  target_include_directories(velostrix_eigen SYSTEM INTERFACE ${VELOSTRIX_SIMDE})
  # GCC takes the ends of small matrices for whole packets and warns.
  target_compile_options(velostrix_eigen INTERFACE
    "SHELL:-include ${PROJECT_SOURCE_DIR}/src/base/eigen_packets.h" -Wno-stringop-overflow)
endif()
