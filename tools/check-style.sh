#!/usr/bin/env bash
# House rules that a grep can check. Prints each breach as file:line and fails if there is one.
set -uo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
breaches=0

# never PATTERN REASON PATHS...: no tracked file below the paths may have a line that matches.
never() {
  local pattern=$1 reason=$2
  shift 2
  local found
  found=$(git grep -nE "$pattern" -- "$@")
  [ -z "$found" ] && return
  printf '%s\n%s\n\n' "$reason" "$found" >&2
  breaches=$((breaches + 1))
}

never '#include "(Ipsec|CheckedAt|ErrorTrace|AlgorithmTables)\.h"' \
  'The platform knows nothing of the library:' 'platform/*'
never '#include "(Ipsec\.h|include/|src/|platform/|tests/)' 'The ground floor includes nothing of ours:' 'base/*'
never '#include "(src|\.\./src)/.*\.h"' 'Only the library and its tests include from src:' 'examples/*' 'bench/*'
never '#include ".*\.cpp"' 'One test includes a source, no other file does:' '*.cpp' '*.h' \
  ':!tests/dh/DhInternalsTest.cpp'
never '#if(n?def)? .*(TEST|UNIT)' 'The library has no code for tests:' 'src/*' 'include/*' 'platform/*'
never '\.at\(' 'Standard libraries word at() differently: checkedAt() or find():' 'src/*'
never '\bgoto\b' 'Early returns instead of goto:' '*.cpp' '*.h'
never '\b(HMAC|DH|EC_KEY|SHA1|SHA256|SHA512)_(Init|Update|Final|new|CTX_new|generate_key|compute_key)\w*\(' \
  'OpenSSL interfaces that version 3 deprecates:' 'src/*' 'platform/*'
never '\b(malloc|calloc|realloc|strcpy|strcat|sprintf|gets)\(' 'Functions that the house does not use:' \
  'src/*' 'platform/*' 'include/*'
never '[[:space:]]+$' 'Blanks at the end of a line:' '*.cpp' '*.h' '*.py' '*.sh' '*.md' '*.txt' 'dev' ':!tests/files/golden/*'
never '^(<<<<<<<|>>>>>>>)' 'Left-over merge marks:' .

if [ "$breaches" -ne 0 ]; then
  echo "check-style: $breaches rules broken" >&2
  exit 1
fi
