# Compiler settings shared by every target of the project.
add_library(quib_warnings INTERFACE)
target_compile_options(quib_warnings INTERFACE -Wall -Wextra -Wpedantic
                       $<$<BOOL:${QUIB_WERROR}>:-Werror>)

# Compensated sums must survive the optimiser: never contract a*b+c into one rounding.
add_compile_options(-ffp-contract=off)

if(QUIB_SANITIZE)
  add_compile_options(-fsanitize=${QUIB_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QUIB_SANITIZE})
endif()
if(QUIB_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "The fuzz targets need clang (configure with CXX=clang++)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
