#!/usr/bin/env bash
# End-to-end checks of vaporix render: a tiny packed frame rendered to PNG and OpenEXR, the
# thread count, parameters, lights, bad usage, failed operations and Ctrl-C.
set -u
tool="$1"
source "$(dirname "$0")/testlib.sh"

# A 12x12x16 ball of smoke with a hot core, as frame 3 of a sequence.
$py -c "
import struct, math
n = (12, 12, 16)
smoke, temp = [], []
for z in range(n[2]):
    for y in range(n[1]):
        for x in range(n[0]):
            d = math.sqrt((x - 5.5) ** 2 + (y - 5.5) ** 2 + (z - 7.5) ** 2)
            smoke.append(max(0.0, 1 - d / 5))
            temp.append(max(0.0, 2400 * (1 - d / 3)))
open('$tmp/smoke.f32', 'wb').write(struct.pack('<%df' % len(smoke), *smoke))
open('$tmp/temp.f32', 'wb').write(struct.pack('<%df' % len(temp), *temp))
"
check "pack" status_is 0 "$tool" pack --size 12 12 16 --channel 2="$tmp/smoke.f32" \
    --channel 1="$tmp/temp.f32" --frame 3 -o "$tmp/ball_0003.vxg"

# PNG: RGBA, 8 bits, the asked size; a summary line unless -q.
check "png" status_is 0 "$tool" render "$tmp/ball_####.vxg" --frame 3 --size 40 30 -o "$tmp/a.png"
check "png summary" stderr_has "wrote $tmp/a.png (40x30"
check "png header" $py - "$tmp/a.png" <<'PY'
import struct, sys, zlib
data = open(sys.argv[1], 'rb').read()
assert data[:8] == b'\x89PNG\r\n\x1a\n'
w, h, depth, kind = struct.unpack('>IIBB', data[16:26])
assert (w, h, depth, kind) == (40, 30, 8, 6), (w, h, depth, kind)
# Something was drawn: some pixel is neither empty nor the same as the corner.
pos, idat = 8, b''
while pos < len(data):
    n, t = struct.unpack('>I4s', data[pos:pos + 8])
    if t == b'IDAT': idat += data[pos + 8:pos + 8 + n]
    pos += 12 + n
raw = zlib.decompress(idat)
assert len(raw) == 30 * (1 + 40 * 4)
assert max(raw[1 + 15 * 161: 160 + 15 * 161]) > 0
PY

# EXR: the layers, and the same file whatever the thread count.
check "exr 1 thread" status_is 0 "$tool" render "$tmp/ball_0003.vxg" --size 40 30 --threads 1 \
    --ground --samples 2 -q -o "$tmp/one.exr"
check "quiet" stderr_empty
check "exr 2 threads" status_is 0 "$tool" render "$tmp/ball_0003.vxg" --size 40 30 --threads 2 \
    --ground --samples 2 -q -o "$tmp/two.exr"
check "same image" cmp -s "$tmp/one.exr" "$tmp/two.exr"
check "exr layers" $py - "$tmp/one.exr" <<'PY'
import sys
data = open(sys.argv[1], 'rb').read()
assert data[:4] == bytes([0x76, 0x2f, 0x31, 0x01])
for name in (b'R\0', b'A\0', b'volume.R\0', b'volume.B\0', b'transmittance.G\0'):
    assert name in data[:2000], name
PY
check "another seed" status_is 0 "$tool" render "$tmp/ball_0003.vxg" --size 40 30 --threads 2 \
    --ground --samples 2 --seed 17 -q -o "$tmp/seed.exr"
check "seed changes noise" bash -c "! cmp -s '$tmp/one.exr' '$tmp/seed.exr'"

# Camera, lights, background and parameters from the command line and a file.
"$tool" params --set smoketransp=0.2 --save "$tmp/look.json" --changed
check "everything" status_is 0 "$tool" render "$tmp/ball_0003.vxg" --size 24 16 -q \
    --camera 30 -40 20 0 0 8 35 --light directional:1,1,-1:1,0.9,0.8:2 \
    --light point:0,-20,20 --light spot:0,0,40:0,0,0:30,40 --light ambient:0.1,0.1,0.1 \
    --background 0.1 0.2 0.3 --params "$tmp/look.json" --set emult=2 --set "earg=Temperature" \
    -o "$tmp/all.png"
check "negative camera numbers" status_is 0 "$tool" render "$tmp/ball_0003.vxg" --size 8 8 -q \
    --camera -30 -40 -20 0 0 8 35 -o "$tmp/neg.png"

# Bad usage: exit 2 with one message naming the problem.
check "no args" status_is 2 "$tool" render
check "no output" status_is 2 "$tool" render "$tmp/ball_0003.vxg"
check "no output message" stderr_lines 1
check "bad extension" status_is 2 "$tool" render "$tmp/ball_0003.vxg" -o "$tmp/a.jpg"
check "bad size" status_is 2 "$tool" render "$tmp/ball_0003.vxg" --size 0 10 -o "$tmp/b.png"
check "bad samples" status_is 2 "$tool" render "$tmp/ball_0003.vxg" --samples x -o "$tmp/b.png"
check "bad threads" status_is 2 "$tool" render "$tmp/ball_0003.vxg" --threads 0 -o "$tmp/b.png"
check "bad light" status_is 2 "$tool" render "$tmp/ball_0003.vxg" --light lamp:1,2,3 -o "$tmp/b.png"
check "bad light message" stderr_has "lamp:1,2,3"
check "bad camera" status_is 2 "$tool" render "$tmp/ball_0003.vxg" --camera 1 1 1 1 1 1 40 \
    -o "$tmp/b.png"
check "bad camera message" stderr_has "target"
check "short camera" status_is 2 "$tool" render "$tmp/ball_0003.vxg" --camera 1 2 3 -o "$tmp/b.png"
check "bad background" status_is 2 "$tool" render "$tmp/ball_0003.vxg" --background 1 x 1 \
    -o "$tmp/b.png"
check "unknown option" status_is 2 "$tool" render "$tmp/ball_0003.vxg" --frobnicate -o "$tmp/b.png"
check "unknown parameter" status_is 2 "$tool" render "$tmp/ball_0003.vxg" --set nosuch=1 \
    -o "$tmp/b.png"
check "two inputs" status_is 2 "$tool" render "$tmp/ball_0003.vxg" "$tmp/ball_0003.vxg" \
    -o "$tmp/b.png"
check "nothing written on bad usage" test ! -e "$tmp/b.png"
check "help" status_is 0 "$tool" render --help
check "help lights" grep -qF "spot:X,Y,Z:TX,TY,TZ:ANGLE" "$tmp/stdout"

# Failed operations: exit 1 with one message, nothing written.
check "missing file" status_is 1 "$tool" render "$tmp/none.vxg" -o "$tmp/c.png"
check "missing file message" stderr_lines 1
check "missing frame" status_is 1 "$tool" render "$tmp/ball_####.vxg" --frame 9 -o "$tmp/c.png"
check "missing params" status_is 1 "$tool" render "$tmp/ball_0003.vxg" --params "$tmp/none.json" \
    -o "$tmp/c.png"
check "unwritable output" status_is 1 "$tool" render "$tmp/ball_0003.vxg" --size 8 8 \
    -o "$tmp/no/such/c.png"
check "nothing written on failure" test ! -e "$tmp/c.png"

# Ctrl-C: the render stops, no image and no temporary file stay, exit 1 with one message.
check "interrupt" $py - "$tool" "$tmp/ball_0003.vxg" "$tmp/big.exr" <<'PY'
import os, signal, subprocess, sys, time
tool, frame, out = sys.argv[1:4]
p = subprocess.Popen([tool, 'render', frame, '--size', '1000', '1000', '--samples', '4096',
                      '--threads', '1', '-o', out], stderr=subprocess.PIPE,
                     preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
# Interrupt once the tool has taken over Ctrl-C (its handler shows in the caught-signal mask),
# not after a guess at how long it takes to start.
def catches_sigint():
    try:
        with open('/proc/%d/status' % p.pid) as f:
            for line in f:
                if line.startswith('SigCgt:'):
                    return int(line.split()[1], 16) & (1 << (signal.SIGINT - 1))
    except OSError:
        pass
    return False
while p.poll() is None and not catches_sigint():
    time.sleep(0.01)
p.send_signal(signal.SIGINT)
err = p.communicate(timeout=60)[1].decode()
assert p.returncode == 1, (p.returncode, err)
assert err.count('\n') == 1 and 'interrupted' in err, err
left = os.listdir(os.path.dirname(out))
assert not [f for f in left if f.startswith('big')], left
PY

finish
