# Compiler flags that every target of ours shares: velostrix_flags (arithmetic and warnings).
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
    $<$<BOOL:${VELOSTRIX_WERROR}>:-Werror>)
endif()
