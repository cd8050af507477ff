# Builds for the device's architecture, 64-bit Arm, on a Debian desk with the arm64 architecture
# added (scripts/install-deps --arch arm64): Debian's cross compiler, the arm64 libraries that
# live beside the desk's own under /usr/lib/aarch64-linux-gnu, and the user-mode emulator that
# runs the results.
#
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# pkg-config of the desk, reading the arm64 architecture's package files only.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})

# Without binfmt_misc the kernel cannot start an arm64 program: the emulator is named explicitly.
find_program(BUNDLERUN_QEMU_AARCH64 qemu-aarch64-static)
if(BUNDLERUN_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${BUNDLERUN_QEMU_AARCH64}")
endif()
