#!/usr/bin/env bash
# The main job on built-in sample data: `vaporix demo` writes a procedural fire-and-smoke
# sequence as cache frames and renders three of them; `vaporix info` shows what a frame holds.
set -euo pipefail
tool="$1"
out="$2"
"$tool" demo --out "$out"
echo
"$tool" info "$out/fire_####.vxg" --frame 12
echo
echo "The sample sequence and its images are in $out:"
for image in "$out"/fire_*.png "$out"/fire_*.exr; do
    [ -e "$image" ] && echo "  $image"
done
echo "(try: $tool render '$out/fire_####.vxg' --frame 6 --params $out/fire_look.json -o frame6.png)"
