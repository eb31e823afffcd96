# Flags that every target of ours shares: velostrix_flags (arithmetic, warnings, hardening).
#
# Element-wise results are the same bits whatever the vector width, so nothing that reassociates or
# contracts floating-point arithmetic is allowed. errno and trap state are nobody's business here, and
# giving them up changes no result but lets square roots and selects vectorise.
add_library(velostrix_flags INTERFACE)
if(MSVC)
  target_compile_options(velostrix_flags INTERFACE /fp:precise /arch:AVX /W4
    $<$<BOOL:${VELOSTRIX_WERROR}>:/WX>)
else()
  target_compile_options(velostrix_flags INTERFACE
    -mavx -ffp-contract=off -fno-math-errno -fno-trapping-math
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
