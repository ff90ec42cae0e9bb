#!/usr/bin/env bash
# End-to-end checks of the vaporix tool: pack -> info --json -> dump, exit codes, bad files.
set -u
tool="$1"
data="$2"
source "$(dirname "$0")/testlib.sh"
# The library's log file goes to the scratch folder (tests look into it).
export LUMO_LOG_DIR="$tmp/logs"
mkdir -p "$LUMO_LOG_DIR"

# A 3x2x2 ramp and a constant channel, packed and read back.
$py -c "
import struct,sys
open('$tmp/ramp.f32','wb').write(struct.pack('<12f',*[i*0.5-1 for i in range(12)]))
open('$tmp/const.f32','wb').write(struct.pack('<12f',*[2.5]*12))
"
check "pack" status_is 0 "$tool" pack --size 3 2 2 --channel 1="$tmp/ramp.f32" \
    --channel 2="$tmp/const.f32" --frame 17 --time-step 0.04 --sim-time 1.25 \
    --transform 2 0 0 0 2 0 0 0 2 1 2 3 --comment "cli test" --quant-bits 20 -o "$tmp/out.vxg"
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
# Codec settings: zoned lossless streams dump back exactly, 8 bits within half a step.
check "pack zones" status_is 0 "$tool" pack --size 3 2 2 --channel 1="$tmp/ramp.f32" --zones 2 \
    --quant-bits 24 -o "$tmp/zoned.vxg"
check "dump zones" status_is 0 "$tool" dump "$tmp/zoned.vxg" --channel 1 -o "$tmp/zback.f32"
check "zoned bytes" cmp -s "$tmp/ramp.f32" "$tmp/zback.f32"
check "pack 8 bits" status_is 0 "$tool" pack --size 3 2 2 --channel 1="$tmp/ramp.f32" \
    --quant-bits 8 --passes 1 -o "$tmp/q8.vxg"
"$tool" dump "$tmp/q8.vxg" --channel 1 -o "$tmp/q8.f32"
check "8-bit error" $py -c "
import struct
a = struct.unpack('<12f', open('$tmp/ramp.f32','rb').read())
b = struct.unpack('<12f', open('$tmp/q8.f32','rb').read())
assert max(abs(x - y) for x, y in zip(a, b)) <= 5.5 / 512 + 1e-5"
check "bad passes" status_is 2 "$tool" pack --size 3 2 2 --channel 1="$tmp/ramp.f32" --passes 300 -o "$tmp/x.vxg"
check "step needed" status_is 2 "$tool" pack --size 3 2 2 --channel 1="$tmp/ramp.f32" --quant-bits 0 -o "$tmp/x.vxg"
"$tool" info --json --header-only "$tmp/out.vxg" >"$tmp/header.json"
check "header only" $py -c "
import json; j = json.load(open('$tmp/header.json'))
assert j['frameFlags'] == 4 and all(c['min'] is None for c in j['channels'])"

# Derived channels: speed from velocity, red, green and blue from packed colour.
$py -c "
import struct
vx = [3, 0, 1, 2, 0, 6]
vy = [4, 0, 2, 2, 5, 8]
vz = [0, 2, 2, 1, 12, 0]
for name, v in (('vx', vx), ('vy', vy), ('vz', vz)):
    open('$tmp/%s.f32' % name, 'wb').write(struct.pack('<6f', *v))
open('$tmp/rgb.bin', 'wb').write(bytes(range(0, 240, 10)))
open('$tmp/one.f32', 'wb').write(struct.pack('<f', 1.5))
"
check "pack derived" status_is 0 "$tool" pack --size 3 2 1 --channel 4="$tmp/vx.f32" \
    --channel 5="$tmp/vy.f32" --channel 6="$tmp/vz.f32" --channel 18="$tmp/rgb.bin" \
    --quant-bits 24 -o "$tmp/derived.vxg"
"$tool" info --json "$tmp/derived.vxg" >"$tmp/derived.json"
check "derived info" $py - "$tmp/derived.json" <<'PY'
import json, sys
j = json.load(open(sys.argv[1]))
ch = {c["ordinal"]: c for c in j["channels"]}
assert sorted(ch) == [3, 4, 5, 6, 7, 8, 9], ch  # 18 itself is never listed
assert ch[3]["min"] == 2 and ch[3]["max"] == 13, ch[3]
assert abs(ch[7]["max"] - 220 / 255) < 1e-6 and ch[9]["min"] == 0, ch[7]  # bytes 2 and 0
assert j["channelMask"] == (1 << 4) | (1 << 5) | (1 << 6) | (1 << 18)
assert j["infoText"] == ["[GRID: 6 cells, 3x2x1]", "RGB", "Velocity (2.00 : 13.00)"], j["infoText"]
PY
check "dump speed" status_is 0 "$tool" dump "$tmp/derived.vxg" --channel 3 -o "$tmp/speed.f32"
check "dump green" status_is 0 "$tool" dump "$tmp/derived.vxg" --channel 8 -o "$tmp/green.f32"
check "derived bytes" $py -c "
import struct, math
f32 = lambda x: struct.unpack('<f', struct.pack('<f', x))[0]
speed = struct.unpack('<6f', open('$tmp/speed.f32', 'rb').read())
assert speed == (5, 2, 3, 3, 13, 10), speed
packed = bytes(range(0, 240, 10))
green = struct.unpack('<6f', open('$tmp/green.f32', 'rb').read())
assert green == tuple(f32(packed[4 * i + 1] / 255.0) for i in range(6)), green"
check "packed colour is not a channel" status_is 1 "$tool" dump "$tmp/derived.vxg" --channel 18 -o "$tmp/x.f32"

# Text from a file that isn't UTF-8 still gives a document that every JSON reader takes.
check "pack odd comment" status_is 0 "$tool" pack --size 1 1 1 --channel 1="$tmp/one.f32" \
    --comment $'caf\xc3\xa9 \xff\xc3 "q"\t' -o "$tmp/odd.vxg"
"$tool" info --json "$tmp/odd.vxg" >"$tmp/odd.json"
check "odd comment json" $py -c "
import json; j = json.load(open('$tmp/odd.json', encoding='utf-8'))
assert j['comment'] == 'caf\u00e9 \u00ff\u00c3 \"q\"\t', repr(j['comment'])"

# Fixtures of every generation read through the tool.
for f in "$data"/*.vxg; do
    check "info $(basename "$f")" status_is 0 "$tool" info "$f"
done
"$tool" info --json "$data/gen4_writer.vxg" >"$tmp/g4.json"
check "groups" $py -c "
import json; j = json.load(open('$tmp/g4.json'))
g = j['groups'][0]
assert g['name'] == 'Splashes' and g['count'] == 33 and g['channels'] == [0, 1, 2, 3, 10], g"

# Particles: every kind packs and dumps back byte for byte.
$py -c "
import struct
n = 45
open('$tmp/pos.bin','wb').write(struct.pack('<%df' % (3*n), *[i * 0.25 - 3 for i in range(3*n)]))
open('$tmp/id.bin','wb').write(struct.pack('<%dq' % n, *[(i * 7919) % 1000 - 500 for i in range(n)]))
open('$tmp/age.bin','wb').write(struct.pack('<%df' % n, *[i / 7 for i in range(n)]))
"
pargs=(--particles "Foam:0=$tmp/pos.bin" --particles "Foam:10=$tmp/id.bin")
for k in 0 1 2 3 4; do pargs+=(--particles "K$k:0=$tmp/pos.bin:$k" --particles "K$k:3=$tmp/age.bin:$k"); done
check "pack particles" status_is 0 "$tool" pack --size 4 4 4 "${pargs[@]}" -o "$tmp/p.vxg"
for k in 0 1 2 3 4; do
    check "dump kind $k" status_is 0 "$tool" dump "$tmp/p.vxg" --group "K$k" --pchannel 3 -o "$tmp/age$k.bin"
    check "kind $k bytes" cmp -s "$tmp/age.bin" "$tmp/age$k.bin"
done
check "dump ids" status_is 0 "$tool" dump "$tmp/p.vxg" --group Foam --pchannel 10 -o "$tmp/id2.bin"
check "id bytes" cmp -s "$tmp/id.bin" "$tmp/id2.bin"
"$tool" info --json "$tmp/p.vxg" >"$tmp/p.json"
check "particle box" $py -c "
import json; j = json.load(open('$tmp/p.json'))
assert j['particleBox'] == [-3, -2.75, -2.5, 30, 30.25, 30.5], j['particleBox']
assert [g['count'] for g in j['groups']] == [45] * 6"
check "group without positions" status_is 2 "$tool" pack --size 1 1 1 --particles "X:3=$tmp/age.bin" -o "$tmp/z.vxg"
check "particle size mismatch" status_is 1 "$tool" pack --size 1 1 1 --particles "X:0=$tmp/pos.bin" --particles "X:10=$tmp/age.bin" -o "$tmp/z.vxg"
check "missing group" status_is 1 "$tool" dump "$tmp/p.vxg" --group Nope --pchannel 0 -o "$tmp/z.bin"

# Frame patterns.
mkdir -p "$tmp/seq"
for n in 3 5; do
    "$tool" pack --size 3 2 2 --channel 1="$tmp/ramp.f32" --frame $n -o "$tmp/seq/s_000$n.vxg"
done
check "pattern frame" bash -c "'$tool' info --json '$tmp/seq/s_####.vxg' --frame 5 | grep -q '\"frameNumber\": 5'"
check "pattern first" bash -c "'$tool' info --json '$tmp/seq/s_%04d.vxg' | grep -q '\"frameNumber\": 3'"
check "pattern missing frame" status_is 1 "$tool" info "$tmp/seq/s_####.vxg" --frame 4

# Failures and usage errors.
check "missing file" status_is 1 "$tool" info "$tmp/none.vxg"
head -c 100 "$tmp/out.vxg" >"$tmp/cut.vxg"
"$tool" info --json "$tmp/cut.vxg" >"$tmp/cut.json"
check "broken file json" $py -c "
import json; j = json.load(open('$tmp/cut.json'))
assert j['status'] == 4 and j['version'] == -1 and 'gridSize' not in j, j"
check "broken file logged" grep -q "VaporixFrameData::ImportVxg broken or bad memory allocation. File is: $tmp/cut.vxg" "$LUMO_LOG_DIR"/lumo_dbg_log_*
check "absent channel" status_is 1 "$tool" dump "$tmp/out.vxg" --channel 5 -o "$tmp/x.f32"
check "no output left" test ! -e "$tmp/x.f32"
check "wrong size" status_is 1 "$tool" pack --size 4 4 4 --channel 1="$tmp/ramp.f32" -o "$tmp/y.vxg"
check "bad option" status_is 2 "$tool" info --frobnicate "$tmp/out.vxg"
check "bad channel" status_is 2 "$tool" dump "$tmp/out.vxg" --channel 40 -o "$tmp/x.f32"
check "unknown command" status_is 2 "$tool" frobnicate
check "help" status_is 0 "$tool" pack --help

finish
