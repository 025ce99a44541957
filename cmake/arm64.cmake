# Debian's cross compiler for 64-bit Arm, with its multi-arch libraries. The programs run under
# qemu-user, which here emulates a processor without SVE. By default it emulates one with SVE, and
# Highway would use that.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-cpu;cortex-a76)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
