# Cross toolchain for the 64-bit Windows build: mingw-w64 with POSIX threads
# (std::thread and std::mutex need the -posix variant), from Debian's
# g++-mingw-w64-x86-64-posix.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(VELMORA_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${VELMORA_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VELMORA_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${VELMORA_MINGW_TRIPLE}-windres)
set(CMAKE_AR ${VELMORA_MINGW_TRIPLE}-gcc-ar-posix CACHE FILEPATH "")
set(CMAKE_RANLIB ${VELMORA_MINGW_TRIPLE}-gcc-ranlib-posix CACHE FILEPATH "")

# Libraries and headers come from the mingw sysroot only; programs run on
# the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${VELMORA_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# CTest runs the .exe files under Wine. A preset or the command line may
# point this elsewhere (an explicit -D wins over this default).
if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64 CACHE FILEPATH "Runs Windows executables on the build machine")
endif()
