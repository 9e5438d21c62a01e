#!/usr/bin/env bash
# Main job: a full upgrade against a simulated board. Filled in as the command
# line lands; for now it builds the project.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/release -j"$(nproc)"
