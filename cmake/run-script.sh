#!/bin/sh
# Runs a JScript or VBScript sample under the script host of the given
# architecture and compares what it prints with the expected text (line ends
# and trailing blanks of the output are ignored).
#   run-script.sh <arch> <prefix> <script> <expected output file>
# The script host wants a Windows path; Wine maps the Unix root to Z:.
exec "$(dirname "$0")/run-compare.sh" "$1" "$2" "$4" cscript //nologo "Z:$(echo "$3" | sed 's#/#\\#g')"
