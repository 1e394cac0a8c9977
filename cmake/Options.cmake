# Compiler settings that every target of this project shares.
add_library(ledgerd_options INTERFACE)

target_include_directories(ledgerd_options INTERFACE ${PROJECT_SOURCE_DIR})

target_compile_options(ledgerd_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  $<$<BOOL:${LEDGERD_WERROR}>:-Werror>
  # Assertion reports name "lib/platform/...", wherever the tree was built.
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=
  -fstack-protector-strong
  -ffunction-sections -fdata-sections)

target_compile_definitions(ledgerd_options INTERFACE
  _FILE_OFFSET_BITS=64
  # Only header-only parts of Boost's thread library are used.
  BOOST_ALL_NO_LIB
  # Its assertions, such as that of a mutex that cannot be unlocked, do not depend on NDEBUG either: assertion.cpp.
  BOOST_ENABLE_ASSERT_HANDLER)

if(LEDGERD_SANITIZE)
  # Function pointers come back from C libraries without type information, hence no "vptr" or "function" checks.
  target_compile_options(ledgerd_options INTERFACE
    -fsanitize=${LEDGERD_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(ledgerd_options INTERFACE -fsanitize=${LEDGERD_SANITIZE})
else()
  target_link_options(ledgerd_options INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack -Wl,--gc-sections -Wl,--as-needed)
  # A package build chooses the level itself. The compiler may have a level of its own, which must not be defined twice.
  if(CMAKE_BUILD_TYPE MATCHES "Rel" AND NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE")
    target_compile_options(ledgerd_options INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  endif()
endif()

set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

# The build that devices get: figures mean something there, and so do checks of the finished binaries.
set(LEDGERD_AS_SHIPPED OFF)
if(CMAKE_BUILD_TYPE STREQUAL MinSizeRel AND NOT LEDGERD_SANITIZE)
  set(LEDGERD_AS_SHIPPED ON)
endif()
