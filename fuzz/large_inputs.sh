#!/usr/bin/env bash
# Writes the seeds too large to keep in the repository into OUTDIR/TARGET/, for fuzz/run.sh
# to replay whole (libFuzzer cuts the seeds it mutates to -max_len):
#   resource_document: 95,000 attributes on one element behind a declaration whose quoted
#     ">" once hid them (939 KB), the same behind a notation, and 32,000 namespace
#     declarations in scope of a megabyte of prefixed elements;
#   plist_collectors: 300,000 nested arrays behind an apostrophe that the nesting check
#     took for a quote and the property-list reader does not (2.1 MB).
# Usage: bash fuzz/large_inputs.sh OUTDIR
set -euo pipefail
out=${1:?usage: fuzz/large_inputs.sh OUTDIR}
mkdir -p "$out/resource_document" "$out/plist_collectors"

# N copies of a text, joined.
repeat() { awk -v n="$1" -v text="$2" 'BEGIN { for (i = 0; i < n; ++i) printf "%s", text }'; }

attributes=$(seq 0 94999 | sed 's/.*/ a&=""/' | tr -d '\n')
row="<TarnWMIData><Agentparams PARAM_NAME=\"RESOURCE_ID\"$attributes/></TarnWMIData>"
printf '<!DOCTYPE Tarn [<!ENTITY e "><!--">]>%s' "$row" \
  >"$out/resource_document/entity-hides-attributes.xml"
printf '<!DOCTYPE Tarn [<!NOTATION n SYSTEM "x><!--">]>%s' "$row" \
  >"$out/resource_document/notation-hides-attributes.xml"
{
  for level in $(seq 0 127); do
    printf '<AgentparamsList%s>' "$(seq $((level * 250)) $((level * 250 + 249)) |
      sed 's/.*/ xmlns:n&="u"/' | tr -d '\n')"
  done
  repeat 25000 '<n0:Agentparams/>'
} >"$out/resource_document/namespaces-in-scope.xml"

{
  printf '<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0">'
  printf "<array x='>"
  repeat 300000 '<array>'
  printf "'>"
} >"$out/plist_collectors/arrays-behind-apostrophe.xml"
