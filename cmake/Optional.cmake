# Optional dependencies of the Linux support library (never of the shipped
# engine library). Each one is used only when it is found; the sources that
# need it are guarded by a KAVRA_HAVE_* definition.

# SDL2: an on-screen native window for a desktop viewer.
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(SDL2 QUIET IMPORTED_TARGET sdl2)
endif()
if(SDL2_FOUND)
  message(STATUS "SDL2 ${SDL2_VERSION} found: desktop window enabled")
  target_link_libraries(kavra_linux_support PUBLIC PkgConfig::SDL2)
  target_compile_definitions(kavra_linux_support PUBLIC KAVRA_HAVE_SDL2=1)
else()
  message(STATUS "SDL2 not found: desktop window disabled")
endif()
