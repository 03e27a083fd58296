# Cross toolchain: Windows x64 with Debian's mingw-w64 (posix thread model).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(OMK_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${OMK_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${OMK_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${OMK_MINGW_PREFIX}-windres)
set(OMK_WIDL ${OMK_MINGW_PREFIX}-widl)

set(CMAKE_FIND_ROOT_PATH /usr/${OMK_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Everything runs under Wine without the mingw runtime DLLs beside it.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")

# Test executables are started through Wine with the build's private prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run)
