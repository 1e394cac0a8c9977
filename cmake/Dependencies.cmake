# The installed libraries that the project is built on. Imported targets are system headers to the compiler, so
# warnings in them are not ours. All that is missing is reported at once, with Debian's names.
set(missing "")

# ledgerd_report_missing(WHAT PACKAGE [OPTION]): OPTION is the one that does without it.
macro(ledgerd_report_missing what package)
  string(APPEND missing "\n  ${what}: install ${package}")
  if(${ARGC} GREATER 2)
    string(APPEND missing ", or configure with -D${ARGV2}=OFF")
  endif()
endmacro()

# ledgerd_find(NAME VERSION PACKAGE [OPTION]): a library that CMake finds; VERSION may be empty.
macro(ledgerd_find name version package)
  find_package(${name} ${version} QUIET)
  if(NOT ${name}_FOUND)
    string(STRIP "${name} ${version}" wanted)
    ledgerd_report_missing("${wanted}" ${package} ${ARGN})
  endif()
endmacro()

# ledgerd_find_module(PREFIX MODULE PACKAGE [OPTION]): a library that pkg-config finds.
macro(ledgerd_find_module prefix module package)
  if(PKG_CONFIG_FOUND)
    pkg_check_modules(${prefix} QUIET IMPORTED_TARGET ${module})
  endif()
  if(NOT ${prefix}_FOUND)
    ledgerd_report_missing(${module} ${package} ${ARGN})
  endif()
endmacro()

find_package(Threads REQUIRED)
find_package(PkgConfig QUIET)
if(NOT PKG_CONFIG_FOUND)
  ledgerd_report_missing(pkg-config pkgconf)
endif()
ledgerd_find(Boost 1.74 libboost-dev)
ledgerd_find(fmt 9 libfmt-dev)
ledgerd_find(nlohmann_json 3.11 nlohmann-json3-dev)
ledgerd_find_module(DBUSCXX dbus-c++-1>=0.9 libdbus-c++-dev)
ledgerd_find_module(DBUS dbus-1>=1.14 libdbus-1-dev)
if(LEDGERD_TRACING)
  ledgerd_find_module(LTTNG lttng-ust>=2.13 liblttng-ust-dev LEDGERD_TRACING)
endif()
if(LEDGERD_CLIENT)
  ledgerd_find(CLI11 2.1 libcli11-dev LEDGERD_CLIENT)
  # Versions 3 and 4 export different targets, but both install a header in the default path.
  ledgerd_find(utf8cpp "" libutfcpp-dev LEDGERD_CLIENT)
endif()
if(BUILD_TESTING)
  ledgerd_find(GTest 1.12 "libgtest-dev and libgmock-dev" BUILD_TESTING)
endif()

if(missing)
  message(FATAL_ERROR "These are missing, with the Debian packages that have them:${missing}")
endif()
