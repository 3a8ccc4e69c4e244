#!/bin/sh
# Fails, showing the difference, when the committed reference ($1) is not the one the build made ($2).
diff -u "$1" "$2" && exit 0
echo "$1 is out of date with the contract; after a build, refresh it with: cp $2 $1"
exit 1
