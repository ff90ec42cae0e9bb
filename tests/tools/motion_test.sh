#!/usr/bin/env bash
# End-to-end checks of render's motion blur and textures: the velocity warning, --shutter and
# --texture usage, texture descriptions from --set and params, and displacement.
set -u
tool="$1"
source "$(dirname "$0")/testlib.sh"

# A 12x12x16 ball of smoke moving along +x (velocity in cells per second), as frame 1.
$py -c "
import struct, math
n = (12, 12, 16)
smoke = []
for z in range(n[2]):
    for y in range(n[1]):
        for x in range(n[0]):
            d = math.sqrt((x - 5.5) ** 2 + (y - 5.5) ** 2 + (z - 7.5) ** 2)
            smoke.append(max(0.0, 1 - d / 5))
cells = len(smoke)
open('$tmp/smoke.f32', 'wb').write(struct.pack('<%df' % cells, *smoke))
open('$tmp/vx.f32', 'wb').write(struct.pack('<%df' % cells, *([120.0] * cells)))
open('$tmp/zero.f32', 'wb').write(struct.pack('<%df' % cells, *([0.0] * cells)))
"
check "pack moving" status_is 0 "$tool" pack --size 12 12 16 --channel 2="$tmp/smoke.f32" \
    --channel 4="$tmp/vx.f32" --channel 5="$tmp/zero.f32" --channel 6="$tmp/zero.f32" \
    --frame 1 -o "$tmp/moving.vxg"
check "pack still" status_is 0 "$tool" pack --size 12 12 16 --channel 2="$tmp/smoke.f32" \
    --frame 1 -o "$tmp/still.vxg"

# Motion blur renders, and the same for one and two threads.
check "blur" status_is 0 "$tool" render "$tmp/moving.vxg" --size 40 30 --samples 4 \
    --motion-blur --shutter -0.25 0.25 --threads 1 -q -o "$tmp/b1.png"
check "blur 2 threads" status_is 0 "$tool" render "$tmp/moving.vxg" --size 40 30 --samples 4 \
    --motion-blur --shutter -0.25 0.25 --threads 2 -q -o "$tmp/b2.png"
check "blur thread count" cmp -s "$tmp/b1.png" "$tmp/b2.png"
check "no blur" status_is 0 "$tool" render "$tmp/moving.vxg" --size 40 30 --samples 4 -q \
    -o "$tmp/n.png"
check "blur changes the image" bash -c "! cmp -s '$tmp/b1.png' '$tmp/n.png'"

# A frame without velocity renders still, with the warning.
check "no velocity" status_is 0 "$tool" render "$tmp/still.vxg" --size 20 20 --motion-blur -q \
    -o "$tmp/s.png"
check "no velocity warning" stderr_has "There is no grid velocity channel in the cache"

# Usage errors: exit 2 with the reason.
check "shutter without blur" status_is 2 "$tool" render "$tmp/moving.vxg" --shutter 0 1 \
    -o "$tmp/x.png"
check "shutter reason" stderr_has "--shutter needs --motion-blur"
check "shutter order" status_is 2 "$tool" render "$tmp/moving.vxg" --motion-blur \
    --shutter 0.5 0 -o "$tmp/x.png"
check "texture slot" status_is 2 "$tool" render "$tmp/moving.vxg" --texture foo=noise \
    -o "$tmp/x.png"
check "texture slot reason" stderr_has "SLOT one of etxt"
check "texture spec" status_is 2 "$tool" render "$tmp/moving.vxg" \
    --texture displ0=noise:scale=2,octaves=40 -o "$tmp/x.png"
check "texture spec reason" stderr_has "--texture displ0: noise: octaves takes a whole number"
check "no image" test ! -e "$tmp/x.png"

# Textures: emission from a texture, displacement through the parameters.
check "etxt" status_is 0 "$tool" render "$tmp/still.vxg" --size 20 20 --set earg=4 \
    --texture etxt=noise:scale=0.5,octaves=3,high=1,0.5,0.1 -q -o "$tmp/e.png"
check "displacement" status_is 0 "$tool" render "$tmp/still.vxg" --size 20 20 \
    --set displacement=on --set displ2d=1 --set displmul=2 \
    --texture displ0=constant:value=1 --texture displ2=cellular:scale=0.3 -q -o "$tmp/d.png"
check "bad texture from --set" status_is 2 "$tool" render "$tmp/still.vxg" --size 20 20 \
    --set displacement=on --set displ2=wobble -q -o "$tmp/x.png"
check "bad texture reason" stderr_has "--set displ2: unknown texture kind 'wobble'"
printf '{"params": {"displacement": 1, "displ2": "noise:gain=9"}}' >"$tmp/p.json"
check "bad texture in params" status_is 1 "$tool" render "$tmp/still.vxg" --size 20 20 \
    --params "$tmp/p.json" -q -o "$tmp/x.png"
check "bad texture in params reason" stderr_has "displ2: noise: gain takes one number"

finish "motion"
