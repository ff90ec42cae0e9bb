#!/usr/bin/env bash
# End-to-end checks of vaporix blend: shifted grids, exact floats, patterns, particles by ID,
# warnings for groups without IDs, refused pairs and bad usage.
set -u
tool="$1"
source "$(dirname "$0")/testlib.sh"

# A: 4x2x1 cells, smoke = x; B: the same cells one further along x (A's x is B's x + 1),
# smoke = 10 + x. Particles: A has IDs 1, 2, 3, B has 2, 3, 4.
$py - "$tmp" <<'PY'
import struct, sys
t = sys.argv[1]
w = lambda name, fmt, vals: open(t + '/' + name, 'wb').write(struct.pack(fmt, *vals))
w('a.f32', '<8f', [x for y in range(2) for x in range(4)])
w('b.f32', '<8f', [10 + x for y in range(2) for x in range(4)])
w('pa.bin', '<9f', [1, 0, 0, 2, 0, 0, 3, 0, 0])
w('pb.bin', '<9f', [5, 1, 0, 6, 1, 0, 7, 1, 0])
w('ia.bin', '<3q', [1, 2, 3])
w('ib.bin', '<3q', [2, 3, 4])
PY
check "pack A" status_is 0 "$tool" pack --size 4 2 1 --channel 2="$tmp/a.f32" --frame 10 \
    --sim-time 1 --particles "Foam:0=$tmp/pa.bin" --particles "Foam:10=$tmp/ia.bin" \
    --quant-bits 32 -o "$tmp/seq_####.vxg"
check "pack B" status_is 0 "$tool" pack --size 4 2 1 --channel 2="$tmp/b.f32" --frame 11 \
    --sim-time 2 --transform 1 0 0 0 1 0 0 0 1 1 0 0 --particles "Foam:0=$tmp/pb.bin" \
    --particles "Foam:10=$tmp/ib.bin" --quant-bits 32 -o "$tmp/seq_####.vxg"

# Files by name; the floats are stored exactly.
check "blend" status_is 0 "$tool" blend "$tmp/seq_0010.vxg" "$tmp/seq_0011.vxg" --weight 0.25 \
    --quant-bits 32 -o "$tmp/out.vxg"
check "blend quiet" stderr_empty
check "dump blended" status_is 0 "$tool" dump "$tmp/out.vxg" --channel 2 -o "$tmp/out.f32"
check "dump ids" status_is 0 "$tool" dump "$tmp/out.vxg" --group Foam --pchannel 10 -o "$tmp/ids.bin"
check "dump positions" status_is 0 "$tool" dump "$tmp/out.vxg" --group Foam --pchannel 0 -o "$tmp/pos.bin"
check "blend info" status_is 0 "$tool" info "$tmp/out.vxg" --json
check "blended values" $py - "$tmp" <<'PY'
import json, struct, sys
t = sys.argv[1]
f32 = lambda x: struct.unpack('<f', struct.pack('<f', x))[0]
v = struct.unpack('<10f', open(t + '/out.f32', 'rb').read())
# Union of 5 cells along x: cell 0 only B's 0, cells 1..3 both, cell 4 only A's 3.
a = lambda x: float(x)
b = lambda x: 10.0 + x
want = [f32(f32(b(0) * 0.25))] + [f32(f32(b(x) * 0.25) + f32(a(x - 1) * 0.75)) for x in (1, 2, 3)] + [f32(a(3) * 0.75)]
assert list(v[:5]) == want, (v, want)
assert struct.unpack('<2q', open(t + '/ids.bin', 'rb').read()) == (2, 3)
pos = struct.unpack('<6f', open(t + '/pos.bin', 'rb').read())
# A's positions + 1 and B's as they are, mixed 0.75 / 0.25.
assert pos == (f32(3 * 0.75 + 5 * 0.25), 0.25, 0.0, f32(4 * 0.75 + 6 * 0.25), 0.25, 0.0), pos
j = json.load(open(t + '/stdout'))
assert j["frameNumber"] == 10 and j["simTime"] == 1.25, j
assert j["gridSize"] == [5, 2, 1], j
PY

# Patterns with --frame and --frame-b (default: the next frame); OUT names the frame.
check "blend pattern velocity" status_is 1 "$tool" blend "$tmp/seq_####.vxg" "$tmp/seq_####.vxg" \
    --frame 10 --weight 0.5 --method velocity --particles none -o "$tmp/mid_####.vxg"
check "velocity needs velocity" stderr_has "vaporix blend: Blending frames could not expand the velocity channel!"
check "one line" stderr_lines 1
check "blend pattern linear" status_is 0 "$tool" blend "$tmp/seq_####.vxg" "$tmp/seq_####.vxg" \
    --frame 10 --frame-b 11 --weight 0.5 --particles none -o "$tmp/mid_####.vxg"
check "blend pattern names the frame" test -f "$tmp/mid_0010.vxg"
check "header only" status_is 0 "$tool" blend "$tmp/seq_0010.vxg" "$tmp/seq_0011.vxg" \
    --weight 1 --method header -o "$tmp/head.vxg"

# A group without IDs: a warning naming it, and the frame is still written.
check "pack no ids" status_is 0 "$tool" pack --size 4 2 1 --channel 2="$tmp/a.f32" \
    --particles "Foam:0=$tmp/pa.bin" -o "$tmp/noid.vxg"
check "blend no ids" status_is 0 "$tool" blend "$tmp/noid.vxg" "$tmp/seq_0011.vxg" --weight 0.5 \
    -o "$tmp/noid_out.vxg"
check "blend no ids warns" stderr_has "without IDs, left empty: Foam"
check "blend no ids wrote" test -f "$tmp/noid_out.vxg"

# Frames of another cell size can't be blended.
check "pack scaled" status_is 0 "$tool" pack --size 4 2 1 --channel 2="$tmp/a.f32" \
    --transform 1.01 0 0 0 1.01 0 0 0 1.01 0 0 0 -o "$tmp/scaled.vxg"
check "blend scale" status_is 1 "$tool" blend "$tmp/seq_0010.vxg" "$tmp/scaled.vxg" --weight 0.5 \
    -o "$tmp/bad.vxg"
check "blend scale says" stderr_has "Blending frames with different scale!"
check "blend scale wrote nothing" test ! -e "$tmp/bad.vxg"

# Bad usage.
check "weight above 1" status_is 2 "$tool" blend "$tmp/seq_0010.vxg" "$tmp/seq_0011.vxg" --weight 1.5 -o "$tmp/x.vxg"
check "weight not a number" status_is 2 "$tool" blend "$tmp/seq_0010.vxg" "$tmp/seq_0011.vxg" --weight half -o "$tmp/x.vxg"
check "no weight" status_is 2 "$tool" blend "$tmp/seq_0010.vxg" "$tmp/seq_0011.vxg" -o "$tmp/x.vxg"
check "bad method" status_is 2 "$tool" blend "$tmp/seq_0010.vxg" "$tmp/seq_0011.vxg" --weight 0.5 --method cubic -o "$tmp/x.vxg"
check "bad overlap" status_is 2 "$tool" blend "$tmp/seq_0010.vxg" "$tmp/seq_0011.vxg" --weight 0.5 --overlap -1 -o "$tmp/x.vxg"
check "one frame" status_is 2 "$tool" blend "$tmp/seq_0010.vxg" --weight 0.5 -o "$tmp/x.vxg"
check "missing file" status_is 1 "$tool" blend "$tmp/none.vxg" "$tmp/seq_0011.vxg" --weight 0.5 -o "$tmp/x.vxg"
check "help" status_is 0 "$tool" blend --help
finish blend
