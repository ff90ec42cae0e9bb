#!/usr/bin/env bash
# End-to-end checks of vaporix mesh: PLY and OBJ of a ball, a closed outward surface in world
# space, sequences, a gizmo (closed and open), bad usage and failed operations.
set -u
tool="$1"
source "$(dirname "$0")/testlib.sh"

# A ball of liquid of radius 6 in a 20^3 grid, moved by the world-to-grid transform.
$py -c "
import struct, math
n = 20
v = []
for z in range(n):
    for y in range(n):
        for x in range(n):
            v.append(6 - math.sqrt((x - 9.5) ** 2 + (y - 9.5) ** 2 + (z - 9.5) ** 2))
open('$tmp/ball.f32', 'wb').write(struct.pack('<%df' % len(v), *v))
"
check "pack" status_is 0 "$tool" pack --size 20 20 20 --channel 1="$tmp/ball.f32" --quant-bits 24 \
    --transform 1 0 0 0 1 0 0 0 1 -100 0 0 -o "$tmp/ball_0001.vxg"
cp "$tmp/ball_0001.vxg" "$tmp/ball_0002.vxg"

check "ply" status_is 0 "$tool" mesh "$tmp/ball_0001.vxg" --level 0 -o "$tmp/b.ply"
check "ply counts" stdout_has "vertices"
check "obj" status_is 0 "$tool" mesh "$tmp/ball_0001.vxg" --level 0 --smooth 2 -o "$tmp/b.obj"
# Closed, facing outwards, in world space: the ball sits at x = 109.5 (grid x = world x - 100).
check "obj surface" $py - "$tmp/b.obj" <<'PY'
import sys, math
V, N, F = [], [], []
for line in open(sys.argv[1]):
    p = line.split()
    if not p: continue
    if p[0] == 'v': V.append(list(map(float, p[1:4])))
    if p[0] == 'vn': N.append(list(map(float, p[1:4])))
    if p[0] == 'f': F.append([int(q.split('/')[0]) - 1 for q in p[1:]])
edges = {}
vol = 0
for a, b, c in F:
    for u, w in ((a, b), (b, c), (c, a)):
        edges[(u, w)] = edges.get((u, w), 0) + 1
    A, B, C = V[a], V[b], V[c]
    vol += (A[0] * (B[1] * C[2] - B[2] * C[1]) - A[1] * (B[0] * C[2] - B[2] * C[0]) + A[2] * (B[0] * C[1] - B[1] * C[0])) / 6
assert all(n == 1 and edges.get((w, u)) == 1 for (u, w), n in edges.items()), 'not closed'
assert abs(vol / (4 / 3 * math.pi * 216) - 1) < 0.05, vol
cx = sum(v[0] for v in V) / len(V)
assert abs(cx - 109.5) < 0.1, cx
for v, n in zip(V, N):
    assert (v[0] - 109.5) * n[0] + (v[1] - 9.5) * n[1] + (v[2] - 9.5) * n[2] > 0
PY
check "ply binary" $py - "$tmp/b.ply" <<'PY'
import sys, struct
data = open(sys.argv[1], 'rb').read()
head, body = data.split(b'end_header\n', 1)
lines = head.decode().splitlines()
assert lines[1] == 'format binary_little_endian 1.0'
nv = int([l for l in lines if l.startswith('element vertex')][0].split()[2])
nf = int([l for l in lines if l.startswith('element face')][0].split()[2])
assert len(body) == nv * 24 + nf * 13, (len(body), nv, nf)
for i in range(nf):
    k, a, b, c = struct.unpack_from('<Biii', body, nv * 24 + 13 * i)
    assert k == 3 and 0 <= min(a, b, c) and max(a, b, c) < nv
PY

# A level above every value: an empty mesh and no error.
check "empty" status_is 0 "$tool" mesh "$tmp/ball_0001.vxg" --level 100 -o "$tmp/e.ply"
check "empty counts" stdout_has "0 vertices, 0 triangles"

# Sequences: every frame, named by the output pattern.
check "sequence" status_is 0 "$tool" mesh "$tmp/ball_####.vxg" --level 0 -q -o "$tmp/s_####.ply"
check "sequence files" test -s "$tmp/s_0001.ply" -a -s "$tmp/s_0002.ply"
check "sequence needs pattern" status_is 2 "$tool" mesh "$tmp/ball_####.vxg" -o "$tmp/one.ply"

# A gizmo box in world space around part of the ball keeps what lies inside it.
cat >"$tmp/box.obj" <<'OBJ'
v 100 0 0
v 109.5 0 0
v 109.5 20 0
v 100 20 0
v 100 0 20
v 109.5 0 20
v 109.5 20 20
v 100 20 20
f 1 3 2
f 1 4 3
f 5 6 7
f 5 7 8
f 1 2 6
f 1 6 5
f 4 7 3
f 4 8 7
f 1 5 8
f 1 8 4
f 2 3 7
f 2 7 6
OBJ
check "gizmo" status_is 0 "$tool" mesh "$tmp/ball_0001.vxg" --gizmo "$tmp/box.obj" -o "$tmp/g.obj"
check "gizmo cut" $py - "$tmp/g.obj" <<'PY'
import sys
xs = [float(l.split()[1]) for l in open(sys.argv[1]) if l.startswith('v ')]
assert xs and max(xs) < 109.6, max(xs)
PY
grep -v '^f 2 7 6' "$tmp/box.obj" >"$tmp/open.obj"
check "open gizmo" status_is 1 "$tool" mesh "$tmp/ball_0001.vxg" --gizmo "$tmp/open.obj" -o "$tmp/x.ply"
check "open gizmo message" stderr_has "not closed"
printf 'v 0 0 0\nf 1 2 3\n' >"$tmp/bad.obj"
check "bad gizmo" status_is 1 "$tool" mesh "$tmp/ball_0001.vxg" --gizmo "$tmp/bad.obj" -o "$tmp/x.ply"
check "bad gizmo message" stderr_has "out of range"

# Bad usage and failed operations.
check "no output" status_is 2 "$tool" mesh "$tmp/ball_0001.vxg"
check "bad channel" status_is 2 "$tool" mesh "$tmp/ball_0001.vxg" --channel 40 -o "$tmp/x.ply"
check "subdivide needs camera" status_is 2 "$tool" mesh "$tmp/ball_0001.vxg" --subdivide 0.5 -o "$tmp/x.ply"
check "missing channel" status_is 1 "$tool" mesh "$tmp/ball_0001.vxg" --channel 2 -o "$tmp/x.ply"
check "missing file" status_is 1 "$tool" mesh "$tmp/nothing.vxg" -o "$tmp/x.ply"
check "unwritable" status_is 1 "$tool" mesh "$tmp/ball_0001.vxg" -o "$tmp/no/such/x.ply"
check "no partial file" test ! -e "$tmp/no/such/x.ply"
check "help" status_is 0 "$tool" mesh --help
check "help text" stdout_has "usage: vaporix mesh"

# The camera-driven split: a camera close to the ball gives more triangles than none.
check "subdivide" status_is 0 "$tool" mesh "$tmp/ball_0001.vxg" --level 0 --subdivide 0.3 \
    --camera 109.5 9.5 40 109.5 9.5 9.5 60 400 300 -o "$tmp/sub.ply"
check "subdivide more" $py - "$tmp/b.ply" "$tmp/sub.ply" <<'PY'
import sys
def faces(p):
    head = open(p, 'rb').read().split(b'end_header')[0].decode()
    return int([l for l in head.splitlines() if l.startswith('element face')][0].split()[2])
assert faces(sys.argv[2]) > faces(sys.argv[1]), (faces(sys.argv[1]), faces(sys.argv[2]))
PY

finish
