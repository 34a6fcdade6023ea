# Cross build for 32-bit ARM hard-float devices; tests run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

find_program(_qemu_arm qemu-arm)
if(NOT _qemu_arm)
  message(FATAL_ERROR "qemu-arm not found: install qemu-user (scripts/setup-deps.sh does)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${_qemu_arm} -L /usr/arm-linux-gnueabihf)

set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# GCC notes that std::vector iterators are passed differently since GCC 7.1 on ARM;
# everything here is built with one compiler, so the note says nothing useful.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
