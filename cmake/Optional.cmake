# Optional dependencies of the engine. Each one is used only when it is found;
# the sources that need it are guarded by a KAVRA_HAVE_* definition.

# SDL2: an on-screen native window for a desktop viewer.
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(SDL2 QUIET IMPORTED_TARGET sdl2)
endif()
if(SDL2_FOUND)
  message(STATUS "SDL2 ${SDL2_VERSION} found: desktop window enabled")
  target_link_libraries(kavra_gallery_player PUBLIC PkgConfig::SDL2)
  target_compile_definitions(kavra_gallery_player PUBLIC KAVRA_HAVE_SDL2=1)
else()
  message(STATUS "SDL2 not found: desktop window disabled")
endif()
