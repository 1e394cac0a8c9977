# The installed libraries that the project is built on. Imported targets are system headers to the compiler, so
# warnings in them are not ours.
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED)
find_package(fmt 9 REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(DBUSCXX REQUIRED IMPORTED_TARGET dbus-c++-1)
pkg_check_modules(DBUS REQUIRED IMPORTED_TARGET dbus-1)
pkg_check_modules(LTTNG REQUIRED IMPORTED_TARGET lttng-ust)
