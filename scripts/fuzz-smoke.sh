#!/usr/bin/env bash
# Short libFuzzer runs of every target from its seed corpus: a crash, hang or stray access fails.
# Usage: scripts/fuzz-smoke.sh BUILD_DIR [SECONDS_PER_TARGET]
set -euo pipefail
build=$1
seconds=${2:-30}
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

run() {
    local target=$1; shift
    mkdir -p "$work/$target"
    echo "fuzz-smoke: $target for ${seconds}s"
    # New inputs go to a scratch folder; the committed seeds stay as they are.
    if ! "$build/tests/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -print_final_stats=1 -artifact_prefix="$work/$target-" "$work/$target" "$@" \
            2>"$work/$target.log"; then
        tail -60 "$work/$target.log"
        local keep="${FUZZ_ARTIFACTS:-$root/out/fuzz}"
        mkdir -p "$keep"
        cp "$work/$target-"* "$keep/" 2>/dev/null || true
        echo "fuzz-smoke: $target failed; the failing input is kept in $keep" >&2
        exit 1
    fi
    grep -E '^(stat::number_of_executed_units|Done)' "$work/$target.log" || true
}

run fuzz_sg_decoder "$root/tests/fuzz/corpus/sg_decoder"
run fuzz_vxg_reader "$root/tests/data"
run fuzz_particle_section "$root/tests/fuzz/corpus/particle_section"
run fuzz_param_json "$root/tests/fuzz/corpus/param_json"
run fuzz_path_template "$root/tests/fuzz/corpus/path_template"
run fuzz_cli_options "$root/tests/fuzz/corpus/cli_options"
run fuzz_frame_list "$root/tests/fuzz/corpus/frame_list"
run fuzz_texture_spec "$root/tests/fuzz/corpus/texture_spec"
run fuzz_obj_reader "$root/tests/fuzz/corpus/obj_reader"
run fuzz_field3dio "$root/tests/fuzz/corpus/field3dio"
run fuzz_openvdbio "$root/tests/fuzz/corpus/openvdbio"
run fuzz_blend "$root/tests/fuzz/corpus/blend"
run fuzz_channel_map "$root/tests/fuzz/corpus/channel_map"
