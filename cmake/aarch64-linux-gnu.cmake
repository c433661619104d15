# Cross build for the platform processor, run under qemu-aarch64 against Debian's
# arm64 multiarch C library (qemu finds it with no -L).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
# Packages that cannot be co-installed for arm64 are unpacked here by the set-up script.
set(TOVI_ARM64_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../.deps/arm64" CACHE PATH "")
list(APPEND CMAKE_PREFIX_PATH "${TOVI_ARM64_SYSROOT}/usr")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
