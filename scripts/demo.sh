#!/usr/bin/env bash
# Writes a few sample cache frames with `vaporix pack` and prints `vaporix info` of them.
set -euo pipefail
tool="$1"
out="$2"
mkdir -p "$out"
"$tool" demo-frames --out "$out"
for f in "$out"/*.vxg; do
    echo "== $f"
    "$tool" info "$f"
done
echo "sample frames are in $out"
