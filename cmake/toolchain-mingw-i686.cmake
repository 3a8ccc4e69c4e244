set(CMAKE_SYSTEM_PROCESSOR i686)
set(KY_TRIPLE i686-w64-mingw32)
# Only the 64-bit stdole2.tlb ships with Debian's Wine; widl reads it just for
# the names that importlib brings in.
set(KY_WINE_TLB_DIR /usr/lib/x86_64-linux-gnu/wine/x86_64-windows)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw-common.cmake)
