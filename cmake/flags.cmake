# The one list of compiler flags.
#
#   qvrt_warnings  every target of ours; errors unless QVRT_WERROR is off (users of a source package)
#   qvrt_runtime   the library: no exceptions, no RTTI, no hidden machinery, nothing but libc at run time

option(QVRT_WERROR "Warnings are errors" ON)

add_library(qvrt_warnings INTERFACE)
target_compile_options(qvrt_warnings INTERFACE
  -Wall -Wextra -Wconversion -Wshadow -Wundef
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
  $<$<COMPILE_LANGUAGE:CXX>:-Wmissing-declarations>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  $<$<BOOL:${QVRT_WERROR}>:-Werror>)

add_library(qvrt_runtime INTERFACE)
target_compile_options(qvrt_runtime INTERFACE
  -fno-exceptions -fno-rtti -fno-threadsafe-statics -fvisibility=hidden -fvisibility-inlines-hidden
  -fno-semantic-interposition -fno-plt -fstack-protector-strong
  $<$<CXX_COMPILER_ID:Clang>:-Wglobal-constructors>)
if(NOT QVRT_SANITIZE)  # sanitizers pad frames
  target_compile_options(qvrt_runtime INTERFACE -Wframe-larger-than=2048)
endif()
target_include_directories(qvrt_runtime INTERFACE ${PROJECT_SOURCE_DIR})

# Sanitizers and coverage reach every target, tests included.
set(QVRT_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize= takes them")
option(QVRT_COVERAGE "Line coverage" OFF)
if(QVRT_SANITIZE)
  # Instrumented, g++ loses sight of what std::regex initialises. The other builds keep the warning.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  add_compile_options(-fsanitize=${QVRT_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QVRT_SANITIZE})
endif()
if(QVRT_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
