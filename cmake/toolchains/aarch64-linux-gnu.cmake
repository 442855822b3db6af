# Cross build for 64-bit Arm Linux with Debian's cross toolchain and the
# arm64 multiarch libraries (scripts/setup.sh arm64 installs both). The
# programs built here run under qemu's user-mode emulator: ctest puts it in
# front of every test program, and the build puts it in front of the
# programs the tests start themselves.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Multiarch: the target's libraries live beside the host's, under
# /usr/lib/aarch64-linux-gnu, and the headers are shared, so no sysroot.
# pkg-config must read the target's .pc files only.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

find_program(KAVRA_QEMU_AARCH64 qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${KAVRA_QEMU_AARCH64}")
