# 64-bit ARM: Debian's arm64.
set(PEX_ARCH arm64)
set(PEX_TRIPLET aarch64-linux-gnu)
set(PEX_EMULATOR qemu-aarch64)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
