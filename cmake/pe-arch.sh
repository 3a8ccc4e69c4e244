#!/bin/sh
# Prints x86_64 or i686 for a Windows executable or DLL.
#   pe-arch.sh <file>
case $(x86_64-w64-mingw32-objdump -f "$1" 2>/dev/null | grep '^architecture:') in
  *"i386:x86-64,"*) echo x86_64 ;;
  *"i386,"*) echo i686 ;;
  *) echo "pe-arch.sh: $1 is not an x86_64 or i686 PE file" >&2; exit 1 ;;
esac
