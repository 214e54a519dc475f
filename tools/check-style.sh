#!/usr/bin/env bash
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
#
# House rules that a grep can check. Prints each breach as file:line and fails if there is one.
set -uo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
export LC_ALL=C.UTF-8  # columns are counted in characters
breaches=0

breach() {
  printf '%s\n%s\n\n' "$1" "$2" >&2
  breaches=$((breaches + 1))
}

# never PATTERN REASON PATHS...: no tracked file below the paths may have a line that matches.
never() {
  local pattern=$1 reason=$2
  shift 2
  local found
  found=$(git grep -nP "$pattern" -- "$@")
  case $? in
    0) breach "$reason" "$found" ;;
    1) ;;
    *) breach 'This rule could not be checked:' "$pattern" ;;
  esac
}

# --- Who includes whom ------------------------------------------------------------------------------------------------

never '#include "(?!base/)' 'The ground floor includes nothing else of ours:' 'base/*'
never '#include "(?!base/|platform/)' 'A platform includes the seam and the ground floor, nothing of the library:' \
  'platform/*' 'examples/platform-minimal/*'
never '#include "platform/linux/' 'Only the stand-in and its own tests see it from inside:' '*.cpp' '*.h' \
  ':!platform/linux/*' ':!tests/platform/*' ':!tests/fuzz/TraceLevelsFuzz.cpp' ':!tests/fuzz/VrfFuzz.cpp'
never '#include "(?!base/|platform/CryptoShim\.h")' 'The shim includes its interface and the ground floor alone:' \
  'platform/openssl/*'
never '#include "(?!base/|platform/\w+\.h"|\w+\.h")' \
  'The library includes the public headers, its own headers, the seam and the ground floor:' 'src/*'
never '#include "(?!Ipsec\.h"|platform/\w+\.h")' 'A public header includes the seam and Ipsec.h alone:' 'include/*'
never '#include "(platform/\w+/|(\.\./)*src/)' 'Examples and benchmarks see no platform from inside, and no source:' \
  'examples/*' 'bench/*' ':!examples/platform-minimal/*'
never '#include "platform/testing/' 'Only tests use what a platform has for them, and only platforms implement it:' \
  '*.cpp' '*.h' ':!tests/*' ':!platform/linux/*' ':!examples/platform-minimal/*'
never '#include ".*\.cpp"' 'One test includes a source, no other file does:' '*.cpp' '*.h' \
  ':!tests/dh/DhInternalsTest.cpp'

# --- What the code does not say ---------------------------------------------------------------------------------------

never '#if(n?def)? .*(TEST|UNIT)' 'The library has no code for tests:' 'base/*' 'src/*' 'include/*' 'platform/*'
never '\.at\(' 'Standard libraries word at() differently: checkedAt() or find():' 'src/*'
never '\bgoto\b' 'Early returns instead of goto:' '*.cpp' '*.h'
never '\b(HMAC|DH|EC_KEY|SHA1|SHA256|SHA512)_(Init|Update|Final|new|CTX_new|generate_key|compute_key)\w*\(' \
  'OpenSSL interfaces that version 3 deprecates:' 'base/*' 'src/*' 'platform/*'
never '\b(malloc|calloc|realloc|strcpy|strcat|sprintf|gets)\(' 'Functions that the house does not use:' \
  'base/*' 'src/*' 'platform/*' 'include/*'
# The five fields are freed by their destructors. An example shows how a program does without the ground floor.
never '^(?!\s*//).*\b(BN|EC|EVP|OSSL)_\w*free\b(?!\((dhKey|peerPublicValue|ecKey|ecGroup|peerPoint)\);)' \
  'Local handles are owning pointers of base/OpenSslPtr.h:' '*.cpp' '*.h' ':!base/*' ':!examples/*'
never '\bFreeWith\b' 'base/OpenSslPtr.h names every owning pointer:' '*.cpp' '*.h' ':!base/*' ':!examples/*'

# --- What a line and a file look like ---------------------------------------------------------------------------------

text_without_data=(. ':!LICENSE' ':!packaging/abi/*' ':!tests/files/golden/*' ':!tests/fuzz/corpus/*'
  ':!tests/vectors/*' ':!tests/whole/exported_symbols.txt' ':!docs/performance-*.svg')
never '[[:space:]]+$' 'Blanks at the end of a line:' "${text_without_data[@]}"
never '^(?!\|).{121}' 'Lines of more than 120 columns:' "${text_without_data[@]}"
never '^(<<<<<<<|>>>>>>>)' 'Left-over merge marks:' .

# REUSE.toml speaks for the files that cannot, or need not, say it themselves.
mapfile -t elsewhere < <(sed -n 's/^  "\(.*\)",$/:(exclude,glob)\1/p' REUSE.toml)
for line in 'SPDX-FileCopyrightText: The ipsec-helpers authors' 'SPDX-License-Identifier: Apache-2.0'; do
  unmarked=$(git ls-files -z -- . "${elsewhere[@]}" ':!LICENSE' ':!LICENSES' ':!REUSE.toml' |
    xargs -0 awk -v line="$line" 'FNR <= 4 && index($0, line) { found[FILENAME] }
      END { for (i = 1; i < ARGC; ++i) if (!(ARGV[i] in found)) print ARGV[i] }')
  [ -z "$unmarked" ] || breach "Files without \"$line\" in their first four lines:" "$unmarked"
done

long_files=$(git ls-files -z '*.cpp' '*.h' '*.py' '*.sh' dev | xargs -0 wc -l | awk '$1 > 700 && $2 != "total"')
[ -z "$long_files" ] || breach 'Files of more than 700 lines:' "$long_files"

kept_bytes=$(git ls-files -z tests/fuzz/corpus | xargs -0 cat | wc -c)
[ "$kept_bytes" -le 1000000 ] || breach 'The kept inputs of the fuzzers are more than 1 MB:' "$kept_bytes bytes"

if [ "$breaches" -ne 0 ]; then
  echo "check-style: $breaches rules broken" >&2
  exit 1
fi
