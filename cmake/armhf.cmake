# 32-bit ARM with hardware floating point: Debian's armhf, from ARMv7 on.
set(PEX_ARCH armhf)
set(PEX_TRIPLET arm-linux-gnueabihf)
set(PEX_EMULATOR qemu-arm)
set(CMAKE_SYSTEM_PROCESSOR arm)
# GCC 7.1 changed how some structures are passed; nothing here links with code older than that.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
