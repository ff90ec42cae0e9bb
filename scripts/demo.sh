#!/usr/bin/env bash
# The main job on built-in sample data: procedural plume fields are packed into cache frames
# with `vaporix pack`, and `vaporix info` shows what each frame holds.
set -euo pipefail
tool="$1"
out="$2"
size=(40 40 56)
frames=4
mkdir -p "$out/fields"
"$tool" demo --fields "$out/fields" --frames "$frames" --size "${size[@]}"
for f in $(seq 1 "$frames"); do
    n=$(printf '%04d' "$f")
    args=()
    for c in 1 2 4 5 6 10; do args+=(--channel "$c=$out/fields/plume_${n}_$c.f32"); done
    "$tool" pack --size "${size[@]}" "${args[@]}" --frame "$f" \
        --sim-time "$(awk "BEGIN{print $f/30}")" --comment "vaporix demo plume" \
        -o "$out/plume_$n.vxg"
done
rm -rf "$out/fields"
for f in "$out"/plume_*.vxg; do
    echo "== $f"
    "$tool" info "$f"
    echo
done
echo "Sample frames are in $out (try: $tool info --json $out/plume_0001.vxg)"
