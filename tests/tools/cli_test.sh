#!/usr/bin/env bash
# End-to-end checks of the vaporix tool: pack -> info --json -> dump, exit codes, bad files.
set -u
tool="$1"
data="$2"
py=/usr/bin/python3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
passed=0
failed=0
check() {  # check NAME CONDITION...
    local name="$1"
    shift
    if "$@"; then passed=$((passed + 1)); else failed=$((failed + 1)); echo "FAILED: $name"; fi
}
status_is() {  # status_is EXPECTED COMMAND...
    local want="$1"
    shift
    "$@" >/dev/null 2>"$tmp/stderr"
    [ "$?" -eq "$want" ]
}

# A 3x2x2 ramp and a constant channel, packed and read back.
$py -c "
import struct,sys
open('$tmp/ramp.f32','wb').write(struct.pack('<12f',*[i*0.5-1 for i in range(12)]))
open('$tmp/const.f32','wb').write(struct.pack('<12f',*[2.5]*12))
"
check "pack" status_is 0 "$tool" pack --size 3 2 2 --channel 1="$tmp/ramp.f32" \
    --channel 2="$tmp/const.f32" --frame 17 --time-step 0.04 --sim-time 1.25 \
    --transform 2 0 0 0 2 0 0 0 2 1 2 3 --comment "cli test" -o "$tmp/out.vxg"
"$tool" info --json "$tmp/out.vxg" >"$tmp/info.json"
check "info json" $py - "$tmp/info.json" <<'PY'
import json, sys
j = json.load(open(sys.argv[1]))
assert j["status"] == 0 and j["version"] == 4, j
assert j["gridSize"] == [3, 2, 2]
assert j["gridTransform"] == [2, 0, 0, 0, 2, 0, 0, 0, 2, 1, 2, 3]
assert j["channelMask"] == 6 and j["frameNumber"] == 17
assert abs(j["timeStep"] - 0.04) < 1e-7 and j["simTime"] == 1.25 and j["simTime2"] == 0
assert j["comment"] == "cli test" and j["groups"] == []
ch = {c["ordinal"]: c for c in j["channels"]}
assert ch[1]["min"] == -1 and ch[1]["max"] == 4.5 and ch[2]["min"] == 2.5, ch
assert j["infoText"][0] == "[GRID: 12 cells, 3x2x2]", j["infoText"]
PY
check "dump" status_is 0 "$tool" dump "$tmp/out.vxg" --channel 1 -o "$tmp/back.f32"
check "dump bytes" cmp -s "$tmp/ramp.f32" "$tmp/back.f32"
"$tool" info --json --header-only "$tmp/out.vxg" >"$tmp/header.json"
check "header only" $py -c "
import json; j = json.load(open('$tmp/header.json'))
assert j['frameFlags'] == 4 and all(c['min'] is None for c in j['channels'])"

# Fixtures of every generation read through the tool.
for f in "$data"/*.vxg; do
    check "info $(basename "$f")" status_is 0 "$tool" info "$f"
done
"$tool" info --json "$data/gen4_writer.vxg" >"$tmp/g4.json"
check "groups" $py -c "
import json; j = json.load(open('$tmp/g4.json'))
g = j['groups'][0]
assert g['name'] == 'Splashes' and g['count'] == 33 and g['channels'] == [0, 1, 2, 3, 10], g"

# Failures and usage errors.
check "missing file" status_is 1 "$tool" info "$tmp/none.vxg"
head -c 100 "$tmp/out.vxg" >"$tmp/cut.vxg"
"$tool" info --json "$tmp/cut.vxg" >"$tmp/cut.json"
check "broken file json" $py -c "
import json; j = json.load(open('$tmp/cut.json')); assert j['status'] in (3, 4), j"
check "absent channel" status_is 1 "$tool" dump "$tmp/out.vxg" --channel 5 -o "$tmp/x.f32"
check "no output left" test ! -e "$tmp/x.f32"
check "wrong size" status_is 1 "$tool" pack --size 4 4 4 --channel 1="$tmp/ramp.f32" -o "$tmp/y.vxg"
check "bad option" status_is 2 "$tool" info --frobnicate "$tmp/out.vxg"
check "bad channel" status_is 2 "$tool" dump "$tmp/out.vxg" --channel 40 -o "$tmp/x.f32"
check "unknown command" status_is 2 "$tool" frobnicate
check "help" status_is 0 "$tool" pack --help

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
