#!/usr/bin/env bash
# End-to-end checks of playback on the command line: --frame as a scene frame in info and dump,
# and vaporix retime with its plan, blends, loops, damaged frames and bad input.
set -u
tool="$1"
source "$(dirname "$0")/testlib.sh"

# Frames 1 to 6 of a 4x4x4 sequence whose smoke is the frame number everywhere.
for n in 1 2 3 4 5 6; do
    $py -c "import struct,sys; open(sys.argv[1],'wb').write(struct.pack('<64f',*[float($n)]*64))" \
        "$tmp/s$n.f32"
    "$tool" pack --size 4 4 4 --channel 2="$tmp/s$n.f32" --frame $n -o "$tmp/seq/c_####.vxg"
done
seq="$tmp/seq/c_####.vxg"
first_value() { $py -c "import struct,sys; print(struct.unpack('<f',open(sys.argv[1],'rb').read(4))[0])" "$1"; }

# --frame with default parameters: scene frame N is cache frame N.
check "info scene frame" status_is 0 "$tool" info --json "$seq" --frame 4
check "info scene frame is 4" stdout_has '"frameNumber": 4'
check "info missing frame" status_is 1 "$tool" info "$seq" --frame 9
check "info missing says" stderr_has "no file for frame 9"
# Half speed: scene frame 5 is cache frame 2.5, a blend.
check "dump blend" status_is 0 "$tool" dump "$seq" --frame 5 --set play_speed=0.5 --channel 2 -o "$tmp/b.f32"
check "dump blend value" [ "$(first_value "$tmp/b.f32")" = "2.5" ]
check "dump fractional frame" status_is 0 "$tool" dump "$seq" --frame 2.25 --channel 2 -o "$tmp/q.f32"
check "dump fractional value" [ "$(first_value "$tmp/q.f32")" = "2.25" ]
check "dump offset" status_is 0 "$tool" dump "$seq" --frame 1 --set inpoffset=5 --channel 2 -o "$tmp/o.f32"
check "dump offset value" [ "$(first_value "$tmp/o.f32")" = "6.0" ]
check "fps must divide" status_is 2 "$tool" info "$seq" --frame 1 --fps 0
check "nan speed" status_is 2 "$tool" info "$seq" --frame 1 --set play_speed=nan

# Plan: what playback loads, as text and JSON.
check "plan" status_is 0 "$tool" retime "$seq" --frames 2-5 --set play_speed=0.5 --plan
check "plan fraction" stdout_has "fraction 1 + 2 at 0.5"
check "plan json" status_is 0 "$tool" retime "$seq" --frames 2,3 --set play_speed=0.5 --plan --json
check "plan json keys" $py -c "
import json,sys
a = json.load(open(sys.argv[1]))
assert [x['kind'] for x in a] == ['plain', 'fraction'], a
assert a[0]['b'] is None and a[0]['weight'] is None and a[1]['weight'] == 0.5
assert a[1]['a'] == 1 and a[1]['b'] == 2 and len(a[1]['files']) == 2
assert all(x['status'] == 'ok' and x['message'] == '' for x in a)
assert a[1]['ticks'] == 480 and a[1]['cacheTime'] == 240
" "$tmp/stdout"
check "plan loop" status_is 0 "$tool" retime "$seq" --frames 0-1 --set animmode=2 --set inplength=4 \
    --set loopjnt=2 --set inpoffset=1 --plan --json
check "plan loop weights" $py -c "
import json,sys
a = json.load(open(sys.argv[1]))
assert a[0]['kind'] == 'loop' and a[0]['weight'] == 1 and a[0]['b'] == 5, a
" "$tmp/stdout"
check "plan outside clip" status_is 0 "$tool" retime "$seq" --frames 0 --set playat=3 --set inplength=2 --plan
check "plan outside says" stdout_has "[none]"

# Retime writes one frame per scene frame, numbered by the scene frame.
check "retime half speed" status_is 0 "$tool" retime "$seq" --frames 2-12 --set play_speed=0.5 -q -o "$tmp/r/r_####.vxg"
check "retime wrote 11" [ "$(ls "$tmp/r" | wc -l)" -eq 11 ]
check "retime blend frame" status_is 0 "$tool" dump "$tmp/r/r_####.vxg" --frame 7 --channel 2 -o "$tmp/r7.f32"
check "retime blend value" [ "$(first_value "$tmp/r7.f32")" = "3.5" ]
check "retime smoothed" status_is 0 "$tool" retime "$seq" --frames 3 --set enablesmoothsmoke=on -q -o "$tmp/sm.vxg"

# A damaged frame in the middle: reported once, the run goes on.
cp -r "$tmp/seq" "$tmp/bad"
printf 'not a cache' >"$tmp/bad/c_0003.vxg"
check "damaged goes on" status_is 0 "$tool" retime "$tmp/bad/c_####.vxg" --frames 1-6 -o "$tmp/rb/r_####.vxg"
check "damaged reported once" [ "$(grep -c 'scene frame 3' "$tmp/stderr")" -eq 1 ]
check "damaged skipped" [ "$(ls "$tmp/rb" | wc -l)" -eq 5 ]
# One side of a blend missing is no error.
check "half missing" status_is 0 "$tool" retime "$tmp/bad/c_####.vxg" --frames 5 --set play_speed=0.5 -q -o "$tmp/h.vxg"

# Bad input.
check "no files" status_is 1 "$tool" retime "$tmp/none_####.vxg" --frames 1-3 -o "$tmp/n_####.vxg"
check "bad list" status_is 2 "$tool" retime "$seq" --frames 5-1 -o "$tmp/x_####.vxg"
check "bad step" status_is 2 "$tool" retime "$seq" --frames 1-5x0 -o "$tmp/x_####.vxg"
check "needs pattern" status_is 2 "$tool" retime "$seq" --frames 1-3 -o "$tmp/x.vxg"
check "same output frame" status_is 2 "$tool" retime "$seq" --frames 1,1.2 -o "$tmp/x_####.vxg"
check "json needs plan" status_is 2 "$tool" retime "$seq" --frames 1 --json -o "$tmp/x_####.vxg"
check "huge length" status_is 0 "$tool" retime "$seq" --frames 1-3 --set animmode=2 --set inplength=1000000 \
    --set play_speed=10 --plan
check "help" status_is 0 "$tool" retime --help

finish retime
