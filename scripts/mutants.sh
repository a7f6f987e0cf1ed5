#!/usr/bin/env bash
# Mutation testing: applies each one-line fault of scripts/mutants.txt, alone, to a scratch copy
# of the tree, rebuilds the dev preset incrementally, runs the tests (all but the install check;
# the stress tests at a tenth of their counts, the fuzzers replaying their committed corpora)
# and stops at the first failing test. Prints one line per mutant, "killed by TEST", "survived", or "stale" when its
# snippet no longer occurs exactly once (the code moved under it), then a closing line
# "N killed, M survived, S stale". Exits 1 if any mutant survived.
#
# The scratch copy is a detached git worktree of HEAD, plus the uncommitted changes to tracked
# files; it is kept between runs so that only what a mutant touches is rebuilt (with ccache, a
# reverted file rebuilds from the cache). The repository itself is never written to.
#
# Usage: scripts/mutants.sh [NAME-PATTERN...]   (grep -E patterns on mutant names; default: all)
# Environment:
#   MUTANTS_DIR      the scratch worktree (default ${TMPDIR:-/tmp}/connector-mutants)
#   MUTANTS_TIMEOUT  seconds a single test may run before it counts as hung (default 10)
#   MUTANTS_JOBS     parallel build and test jobs (default 2)
#   MUTANTS_STRESS_SCALE  CONNECTOR_STRESS_SCALE for the stress tests (default 0.1)
#   MUTANTS_EVERY    1: run every test on each mutant and name all that kill it ("killed by A, B"),
#                    so that a test whose name never stands alone is seen to be a candidate to cut
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)
catalogue="$repo/scripts/mutants.txt"
scratch="${MUTANTS_DIR:-${TMPDIR:-/tmp}/connector-mutants}"
timeout="${MUTANTS_TIMEOUT:-10}"
jobs="${MUTANTS_JOBS:-2}"
export CMAKE_CXX_COMPILER_LAUNCHER=ccache
export CONNECTOR_STRESS_SCALE="${MUTANTS_STRESS_SCALE:-0.1}"
every="${MUTANTS_EVERY:-0}"
started=$(date +%s)

# ---- The catalogue: parallel arrays of name, file, snippet and replacement.
names=() files=() snippets=() replacements=()
while IFS= read -r line || [ -n "$line" ]; do
  case "$line" in
    "["*"] "*)
      name=${line#[}
      names+=("${name%%]*}")
      files+=("${line#*] }")
      ;;
    "- "*) snippets+=("${line#- }") ;;
    "+"*)
      text=${line#+}
      replacements+=("${text# }")
      ;;
  esac
done <"$catalogue"
if [ ${#names[@]} -ne ${#snippets[@]} ] || [ ${#names[@]} -ne ${#replacements[@]} ]; then
  echo "mutants.txt: every [name] file line needs one '- snippet' and one '+ replacement' line" >&2
  exit 2
fi

# ---- The scratch tree, at HEAD plus the working tree's changes, configured and built once.
revision=$(git rev-parse HEAD)
if [ ! -e "$scratch/.git" ]; then
  git worktree add --quiet --detach "$scratch" "$revision"
else
  git -C "$scratch" checkout --quiet --force --detach "$revision"
  git -C "$scratch" clean --quiet -fd -e build/
fi
if ! git diff --quiet HEAD; then
  git diff --binary HEAD | git -C "$scratch" apply
fi
build="$scratch/build/dev"
# Benchmarks play no part, and without debug information every rebuild links faster.
(cd "$scratch" && cmake --preset dev -DCONNECTOR_BUILD_BENCHMARKS=OFF -DCMAKE_CXX_FLAGS_DEBUG=-O0 >/dev/null)

buildTree() { cmake --build "$build" -j"$jobs" >"$scratch/build.log" 2>&1; }

# Runs the tests matching the ctest regex $1 (all of them if empty); prints the name of the test
# that failed first, or nothing if all pass. ctest's closing list is sorted by number and may hold
# tests that --stop-on-failure interrupted, so the first failure is read from the progress lines.
firstFailure() {
  local log="$scratch/ctest.log"
  ctest --test-dir "$build" ${1:+-R "$1"} -LE install --stop-on-failure --timeout "$timeout" \
    -j"$jobs" >"$log" 2>&1 || true
  local first
  first=$(sed -nE 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: ([^ ]+) [^*]*\*\*\*([A-Za-z]+).*/\1 (\2)/p' "$log" | head -n 1)
  [ -n "$first" ] || first=$(sed -n '/The following tests FAILED:/{n;p;q}' "$log" | sed -E 's/^[[:space:]]*[0-9]+ - //')
  echo "$first"
}

# Runs every test but the install check and prints the names of all that failed, comma-separated.
allFailures() {
  local log="$scratch/ctest.log"
  ctest --test-dir "$build" -LE install --timeout "$timeout" -j"$jobs" >"$log" 2>&1 || true
  sed -n '/The following tests FAILED:/,$p' "$log" | sed -nE 's/^[[:space:]]+[0-9]+ - ([^ ]+) .*/\1/p' |
    paste -sd, - | sed 's/,/, /g'
}

# Every test as "NAME<TAB>EXECUTABLE", from ctest's own listing.
listTests() {
  ctest --test-dir "$build" --show-only=json-v1 | perl -MJSON::PP -e '
    local $/; for my $t (@{decode_json(<STDIN>)->{tests}}) { print "$t->{name}\t$t->{command}[0]\n" }'
}

# The tests nearest to a source file: those of the test folder that mirrors its top folder, and
# the fuzzers' corpus replays. Prints their build targets on the first line and a ctest regex
# of their names on the second.
nearTests() {
  local area=${1%%/*}
  awk -F'\t' -v tests="$build/tests/$area/" -v fuzz="$build/fuzz/" '
    index($2, tests) == 1 || index($2, fuzz) == 1 {
      n = split($2, parts, "/"); targets[parts[n]] = 1
      name = $1; gsub(/[][.*+?^$(){}|\\]/, "\\\\&", name); regex = regex (regex ? "|" : "") name
    }
    END { for (t in targets) line = line " " t; print line; print "^(" regex ")$" }' "$scratch/tests.txt"
}

if ! buildTree; then
  echo "the unmutated tree does not build; see $scratch/build.log" >&2
  exit 2
fi
listTests >"$scratch/tests.txt"
failure=$(firstFailure "")
if [ -n "$failure" ]; then
  echo "the unmutated tree fails $failure; fix that first (log: $scratch/ctest.log)" >&2
  exit 2
fi

# Replaces the one occurrence of SNIPPET in FILE by REPLACEMENT ("<NL>" is a line break). Exits
# 3, changing nothing, if the snippet occurs any other number of times.
mutate() {
  SNIPPET="$2" REPLACEMENT="$3" perl -0777 -i -pe '
    BEGIN { ($s, $r) = map { s/<NL>/\n/gr } @ENV{qw(SNIPPET REPLACEMENT)}; }
    $n = () = /\Q$s\E/g;
    if ($n != 1) { $stale = 1; } else { s/\Q$s\E/$r/; }
    END { exit 3 if $stale; }' "$1"
}

killed=0 survived=0 stale=0 unbuilt=0
for i in "${!names[@]}"; do
  name=${names[$i]} file=${files[$i]}
  if [ $# -gt 0 ]; then
    matched=0
    for pattern in "$@"; do
      if grep -qE -- "$pattern" <<<"$name"; then matched=1; fi
    done
    [ $matched = 1 ] || continue
  fi
  target="$scratch/$file"
  original=$(mktemp)
  if [ ! -f "$target" ]; then
    echo "$name: stale ($file is gone)"
    stale=$((stale + 1))
    continue
  fi
  cp "$target" "$original"
  status=0
  mutate "$target" "${snippets[$i]}" "${replacements[$i]}" || status=$?
  if [ $status -eq 3 ]; then
    echo "$name: stale (its snippet does not occur exactly once in $file)"
    stale=$((stale + 1))
  elif [ $status -ne 0 ]; then
    echo "$name: could not be applied to $file" >&2
    exit 2
  else
    t0=$(date +%s)
    # The nearest tests first, building only what they need; everything else only if they pass.
    { read -r targets; read -r regex; } < <(nearTests "$file")
    failure=""
    if [ "$every" = 1 ]; then
      buildTree && failure=$(allFailures) || failure=""
    elif [ -n "$targets" ] && cmake --build "$build" -j"$jobs" --target $targets >"$scratch/build.log" 2>&1; then
      failure=$(firstFailure "$regex")
    fi
    if [ -z "$failure" ] && ! buildTree; then
      echo "$name: does not build (see the catalogue entry)"
      unbuilt=$((unbuilt + 1))
    else
      [ -n "$failure" ] || [ "$every" = 1 ] || failure=$(firstFailure "")
      if [ -n "$failure" ]; then
        echo "$name: killed by $failure ($(($(date +%s) - t0)) s)"
        killed=$((killed + 1))
      else
        echo "$name: survived ($(($(date +%s) - t0)) s)"
        survived=$((survived + 1))
      fi
    fi
  fi
  # The original content, with a new time stamp so that the next build recompiles it (from the
  # cache) rather than keeping the mutant's objects.
  cp "$original" "$target"
  rm -f "$original"
done

minutes=$(awk -v s=$(($(date +%s) - started)) 'BEGIN { printf "%.1f", s / 60 }')
summary="$killed killed, $survived survived, $stale stale"
[ $unbuilt -eq 0 ] || summary+=", $unbuilt did not build"
echo "$summary ($minutes minutes)"
[ $survived -eq 0 ] && [ $unbuilt -eq 0 ]
