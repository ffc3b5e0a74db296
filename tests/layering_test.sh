#!/usr/bin/env bash
# Fails when a lower layer includes a higher one. The layers, lowest first:
#   base/      helpers every layer uses
#   identity/  identity stores and their routes (base only)
#   clusterfs/ the object store (base only)
#   search/    the unified search engine (base only)
#   tools/     the tool registry (base only)
#   cluster/   gossip membership (base only)
#   kernel/    the kernel (base, identity, search, cluster)
# Modules (inference/, data/, agents/, …) sit above all of them.
set -u
root="${1:-$(dirname "$0")/..}"
cd "$root" || exit 2
status=0

check() {
  local dir="$1" allowed="$2"
  local bad
  bad=$(grep -rnoE '#include "[a-z_]+/' --include='*.h' --include='*.cpp' "$dir" |
        sed -E 's/#include "([a-z_]+)\//\1/' |
        awk -F: -v ok=" $allowed " 'index(ok, " " $NF " ") == 0 { print $1 ":" $2 " includes " $NF "/" }')
  if [ -n "$bad" ]; then
    echo "$dir may include only: $allowed"
    echo "$bad"
    status=1
  fi
}

check base "base"
check identity "base identity"
check clusterfs "base clusterfs"
check search "base search"
check tools "base tools"
check cluster "base cluster"
check kernel "base identity search cluster kernel"

# Nothing outside tests/ and bench/ includes test code.
if grep -rn '#include "tests/' --include='*.h' --include='*.cpp' \
     base identity clusterfs search tools cluster kernel inference data dreams modules 2>/dev/null; then
  echo "production code includes test code"
  status=1
fi
[ $status -eq 0 ] && echo "layers point one way"
exit $status
