#!/usr/bin/env bash
# Fails when a lower layer includes a higher one. The layers, lowest first:
#   base/      helpers every layer uses
#   identity/  identity stores and their routes (base only)
#   clusterfs/ the object store (base only)
#   search/    the unified search engine (base only)
#   tools/     the tool registry (base only)
#   cluster/   gossip membership (base only)
#   kernel/    the kernel (base, identity, search, cluster)
#   praxis/    the agent process runtime (base only)
# Modules (inference/, data/, agents/, dreams/, modules/<name>/) sit above
# all of them, and none includes another's headers: modules meet through
# syscalls and the event bus.
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
check praxis "base praxis"

libraries="base identity clusterfs search tools cluster kernel praxis"
for module in inference data agents dreams; do
  check "$module" "$libraries $module"
done
# modules/<name>/ may include its own folder ("modules/<name>/…") and the
# libraries, never another module's.
for dir in modules/*/; do
  name=$(basename "$dir")
  bad=$(grep -rnoE '#include "[a-z_]+(/[a-z_]+)?/' --include='*.h' --include='*.cpp' "$dir" |
        sed -E 's/#include "//; s/\/$//' |
        awk -F: -v ok=" $libraries modules/$name " '{ top = $NF; sub(/\/.*/, "", top);
             if (index(ok, " " $NF " ") == 0 && (top == "modules" || index(ok, " " top " ") == 0))
               print $1 ":" $2 " includes " $NF "/" }')
  if [ -n "$bad" ]; then
    echo "$dir may include only: $libraries modules/$name"
    echo "$bad"
    status=1
  fi
done

# base/ names no higher layer's namespace.
if grep -rnE 'namespace ostrel::(kernel|identity)\b|namespace (kernel|identity) \{' \
     --include='*.h' --include='*.cpp' base; then
  echo "base/ opens a higher layer's namespace"
  status=1
fi

# Nothing outside tests/ and bench/ includes test code.
if grep -rn '#include "tests/' --include='*.h' --include='*.cpp' \
     base identity clusterfs search tools cluster kernel inference data dreams modules 2>/dev/null; then
  echo "production code includes test code"
  status=1
fi
[ $status -eq 0 ] && echo "layers point one way"
exit $status
