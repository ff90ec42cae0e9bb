#!/usr/bin/env bash
# End-to-end checks of foreign caches in the vaporix tool: channels, info, dump, ls and render
# of .f3d and .vdb files, --channel-map, and convert to .vdb and .vxg with round trips.
set -u
tool="$1"
fixtures="$2"
source "$(dirname "$0")/testlib.sh"
export LUMO_LOG_DIR="$tmp/logs"
mkdir -p "$LUMO_LOG_DIR"

# What a Field3D file offers and the map it gets.
check "channels f3d" status_is 0 "$tool" channels "$fixtures/dense_basic.f3d" --json
check "channels map" $py -c "
import json; j = json.load(open('$tmp/stdout'))
assert j['defaultMap'] == '2,density;10,fuel;1,temperature;', j['defaultMap']
assert [c['name'] for c in j['channels']] == ['density', 'fuel', 'temperature']
"
check "channels text" status_is 0 "$tool" channels "$fixtures/dense_vector.f3d"
check "channels vector" stdout_has "velocity(x)"
check "channels not vxg" status_is 2 "$tool" channels "$tmp/a.vxg"

# info and dump of a Field3D frame: density = 0.5i + 2j + 32k + 1.
check "info f3d" status_is 0 "$tool" info --json "$fixtures/dense_basic.f3d"
check "info f3d json" $py -c "
import json; j = json.load(open('$tmp/stdout'))
assert j['gridSize'] == [16, 12, 10], j
assert sorted(c['ordinal'] for c in j['channels']) == [1, 2, 10], j['channels']
"
check "dump f3d" status_is 0 "$tool" dump "$fixtures/dense_basic.f3d" --channel 2 -o "$tmp/d.f32"
check "dump values" $py -c "
import struct; v = struct.unpack('<1920f', open('$tmp/d.f32','rb').read())
assert v[3 + 16 * (2 + 12 * 1)] == 0.5 * 3 + 2 * 2 + 32 + 1
"
check "channel map" status_is 0 "$tool" info --json --channel-map "1,density;" \
    "$fixtures/dense_basic.f3d"
check "channel map only" $py -c "
import json; j = json.load(open('$tmp/stdout'))
assert [c['ordinal'] for c in j['channels']] == [1], j['channels']
"
check "map names nothing" status_is 1 "$tool" info --channel-map "2,nothing;" \
    "$fixtures/dense_basic.f3d"
check "lzf fails" status_is 1 "$tool" info "$fixtures/lzf_filter.f3d"
check "lzf message" stderr_has "Field3D cache read failed! If the cache was exported from FumeFX"
check "ogawa fails" status_is 1 "$tool" info "$fixtures/ogawa_dense.f3d"

# Field3D to OpenVDB: the same values come back.
check "convert f3d vdb" status_is 0 "$tool" convert "$fixtures/dense_basic.f3d" -o "$tmp/b.vdb"
check "channels vdb" status_is 0 "$tool" channels "$tmp/b.vdb" --json
check "vdb map" $py -c "
import json; j = json.load(open('$tmp/stdout'))
# "fuel" is not a name of the OpenVDB table (its fuel is "FireFuel"): it stays unmapped.
assert j['defaultMap'] == '2,density;1,temperature;', j['defaultMap']
"
check "dump vdb" status_is 0 "$tool" dump "$tmp/b.vdb" --channel 2 -o "$tmp/d2.f32"
check "vdb values" cmp -s "$tmp/d.f32" "$tmp/d2.f32"

# .vxg -> .vdb -> .vxg keeps every value and the transform.
$py -c "
import struct
open('$tmp/ramp.f32','wb').write(struct.pack('<60f',*[(i%7)*0.37-1 if i%3 else 0 for i in range(60)]))
"
check "pack" status_is 0 "$tool" pack --size 5 4 3 --channel 2="$tmp/ramp.f32" \
    --channel 1="$tmp/ramp.f32" --transform 0 0.5 0 -0.5 0 0 0 0 2 1.25 -3 4 -o "$tmp/a.vxg"
check "to vdb" status_is 0 "$tool" convert "$tmp/a.vxg" -o "$tmp/a.vdb"
check "back to vxg" status_is 0 "$tool" convert "$tmp/a.vdb" -o "$tmp/back.vxg"
for c in 1 2; do
    "$tool" dump "$tmp/a.vxg" --channel $c -o "$tmp/a$c.f32"
    "$tool" dump "$tmp/back.vxg" --channel $c -o "$tmp/b$c.f32"
    check "round trip $c" cmp -s "$tmp/a$c.f32" "$tmp/b$c.f32"
done
"$tool" info --json "$tmp/a.vxg" >"$tmp/ia.json"
"$tool" info --json "$tmp/back.vxg" >"$tmp/ib.json"
check "round trip transform" $py -c "
import json
a = json.load(open('$tmp/ia.json')); b = json.load(open('$tmp/ib.json'))
assert a['gridTransform'] == b['gridTransform'], (a['gridTransform'], b['gridTransform'])
assert a['gridSize'] == b['gridSize']
"
check "tolerance" status_is 0 "$tool" convert "$tmp/a.vxg" --tolerance 0.5 -o "$tmp/t.vdb"
check "bad tolerance" status_is 2 "$tool" convert "$tmp/a.vxg" --tolerance -1 -o "$tmp/t.vdb"
check "bad output" status_is 2 "$tool" convert "$tmp/a.vxg" -o "$tmp/t.txt"

# A sequence converts frame by frame; ls reads the headers with the default map.
cp "$fixtures/smoke_0001.f3d" "$fixtures/smoke_0002.f3d" "$tmp/"
check "convert sequence" status_is 0 "$tool" convert "$tmp/smoke_####.f3d" -o "$tmp/out_####.vdb"
check "sequence files" test -s "$tmp/out_0001.vdb" -a -s "$tmp/out_0002.vdb"
check "ls vdb" status_is 0 "$tool" ls --files "$tmp/out_####.vdb"
check "ls frames" stdout_has "files     2"
check "info frame 2" status_is 0 "$tool" info --json --frame 2 "$tmp/out_####.vdb"
check "frame 2 values" $py -c "
import json; j = json.load(open('$tmp/stdout'))
ch = {c['ordinal']: c for c in j['channels']}
assert ch[2]['min'] == 201, ch[2]
"
# A scene frame goes through playback, which reads with the map given (its usrchmap).
check "frame with map" status_is 0 "$tool" info --json --frame 2 --channel-map "1,density;" \
    "$tmp/out_####.vdb"
check "frame map only" $py -c "
import json; j = json.load(open('$tmp/stdout'))
assert [c['ordinal'] for c in j['channels']] == [1], j['channels']
assert j['channels'][0]['min'] == 201, j['channels']
"

# Two frames of a foreign sequence blend into a .vxg frame.
check "blend vdb" status_is 0 "$tool" blend "$tmp/out_####.vdb" "$tmp/out_####.vdb" --frame 1 \
    --weight 0.5 --quant-bits 32 -o "$tmp/mid.vxg"
check "blend vdb info" status_is 0 "$tool" info --json "$tmp/mid.vxg"
check "blend vdb values" $py -c "
import json; j = json.load(open('$tmp/stdout'))
assert 2 in [c['ordinal'] for c in j['channels']], j['channels']
"

# A converted frame renders.
check "render vdb" status_is 0 "$tool" render "$tmp/b.vdb" --size 24 16 --samples 1 -q \
    -o "$tmp/b.png"
check "render image" test -s "$tmp/b.png"
finish foreign
