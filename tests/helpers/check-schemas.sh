#!/bin/sh
# Validates each sample document against the embedded schema of its name,
# and checks that an invalid-<name>.xml sample is refused by it.
#   check-schemas.sh <schema folder> <sample folder>
command -v xmllint >/dev/null 2>&1 || { echo "xmllint is missing (libxml2-utils)"; exit 1; }
status=0
for sample in "$2"/*.xml; do
  name=$(basename "$sample" .xml)
  schema="$1/${name#invalid-}.xsd"
  case $name in
    invalid-*) xmllint --noout --schema "$schema" "$sample" 2>/dev/null && { echo "$sample must not validate"; status=1; } ;;
    *) xmllint --noout --schema "$schema" "$sample" || status=1 ;;
  esac
done
exit $status
