#!/usr/bin/env bash
# Runs clang-tidy (the checks of .clang-tidy and of the folders' own files;
# every finding fails) over the project's sources, with the compile commands
# of build/release (configured here with the release preset if missing).
#
#   scripts/tidy.sh          the sources changed against the merge base with
#                            main (TIDY_BASE names another branch), and the
#                            sources of folders whose headers changed; all
#                            sources when there is no merge base
#   scripts/tidy.sh --all    all sources (about 2 minutes on 2 cores; what CI runs)
set -euo pipefail
cd "$(dirname "$0")/.."

BRIVLO_DEPS_EXTRA="clang-tidy ${BRIVLO_DEPS_EXTRA:-}" scripts/deps.sh
build=build/release
[ -f "$build/compile_commands.json" ] || cmake --preset release >/dev/null

folders='app|net|qim|support|tools|tests|bench|fuzz'
all_sources() {
  python3 -c '
import json, os, re, sys
root = os.getcwd()
for entry in json.load(open(sys.argv[1])):
    path = os.path.relpath(entry["file"], root)
    if re.match(r"^(" + sys.argv[2] + r")/", path):
        print(path)' "$build/compile_commands.json" "$folders" | sort -u
}

sources=$(all_sources)
if [ "${1:-}" != "--all" ] && base=$(git merge-base HEAD "${TIDY_BASE:-main}" 2>/dev/null); then
  changed=$(git diff --name-only "$base" -- | grep -E "^($folders)/.*\.(cpp|h)$" || true)
  # A changed header is checked through the sources of its folder.
  dirs=$(sed -n 's|/[^/]*\.h$||p' <<<"$changed" | sort -u)
  picked=""
  for f in $sources; do
    if grep -qxF "$f" <<<"$changed" || grep -qxF "$(dirname "$f")" <<<"$dirs"; then
      picked+="$f"$'\n'
    fi
  done
  sources=$picked
  echo "== clang-tidy: $(grep -c . <<<"$sources" || true) source(s) changed since $(git rev-parse --short "$base")"
else
  echo "== clang-tidy: all $(grep -c . <<<"$sources") sources"
fi
[ -n "$sources" ] || exit 0

# -quiet: only the findings. Exit status non-zero when any file has one.
# shellcheck disable=SC2086
run-clang-tidy -quiet -p "$build" -j"$(nproc 2>/dev/null || echo 2)" $(sed "s|^|$PWD/|" <<<"$sources") \
  2> >(grep -v '^[0-9]* warnings* generated\.$' >&2)
