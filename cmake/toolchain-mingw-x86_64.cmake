set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(KY_TRIPLE x86_64-w64-mingw32)
set(KY_WINE_TLB_DIR /usr/lib/x86_64-linux-gnu/wine/x86_64-windows)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw-common.cmake)
