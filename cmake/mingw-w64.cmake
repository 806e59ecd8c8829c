# Cross build for 64-bit Windows with MinGW-w64 (posix thread model); the
# programs it makes run on this machine under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(MOLRA_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${MOLRA_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${MOLRA_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${MOLRA_MINGW_TRIPLET}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${MOLRA_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The run-time libraries go into each program, so that Wine needs no DLLs
# beside them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")

find_program(MOLRA_WINE wine REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${MOLRA_WINE})
