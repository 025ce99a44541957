# Debian's cross compiler for 64-bit Arm, with Debian's multi-arch libraries. qemu-user runs the
# programs and emulates a Cortex-A76, which has no SVE. The default processor of qemu-user has SVE,
# and Highway would use it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-cpu;cortex-a76)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
