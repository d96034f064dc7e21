#!/usr/bin/env bash
# The API reference (docs/api.md) names every operation the public headers declare, and every
# operation it shows as a call exists in them.
set -euo pipefail
source=$1
here=$(cd "$(dirname "$0")" && pwd)
headers=("$source"/include/lumoframekit/*.h "$source"/include/rigutil/*.h "$source"/cmake/version.h.in)
declared=$(for h in "${headers[@]}"; do awk -f "$here/api_names.awk" "$h"; done | sort -u)
spans=$(tr '\n' ' ' < "$source/docs/api.md" | grep -o '`[^`]*`')
named=$(grep -o '[A-Za-z_][A-Za-z0-9_]*' <<< "$spans" | sort -u)
called=$(grep -o '[A-Za-z_][A-Za-z0-9_]*(' <<< "$spans" | tr -d '(' | sort -u)
missing=$(comm -23 <(echo "$declared") <(echo "$named"))
unknown=$(comm -13 <(echo "$declared") <(echo "$called"))
status=0
if [ -n "$missing" ]; then echo "declared in the headers, missing from docs/api.md:"; echo "$missing"; status=1; fi
if [ -n "$unknown" ]; then echo "called in docs/api.md, declared in no header:"; echo "$unknown"; status=1; fi
[ $status = 0 ] && echo "docs/api.md names all $(wc -l <<< "$declared") public operations"
exit $status
