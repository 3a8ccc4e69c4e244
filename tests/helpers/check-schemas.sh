#!/bin/sh
# Validates each sample document against the embedded schema of the same
# name, and a document that breaks a rule against its schema.
#   check-schemas.sh <schema folder> <sample folder>
schemas=$1
samples=$2
command -v xmllint >/dev/null 2>&1 || { echo "xmllint is missing (libxml2-utils)"; exit 1; }
status=0
for sample in "$samples"/*.xml; do
  name=$(basename "$sample" .xml)
  case $name in invalid-*) continue ;; esac
  xmllint --noout --schema "$schemas/$name.xsd" "$sample" || status=1
done
for sample in "$samples"/invalid-*.xml; do
  name=$(basename "$sample" .xml)
  name=${name#invalid-}
  if xmllint --noout --schema "$schemas/$name.xsd" "$sample" 2>/dev/null; then
    echo "$sample validates against $name.xsd but must not"
    status=1
  fi
done
exit $status
