#!/usr/bin/env bash
# Interoperability check of OpenVDB export: a sphere of smoke converted to .vdb by vaporix is
# imported by Debian's blender as a volume object in background mode and rendered in front of a
# white world; the image must be darker in the middle (where the volume is) than at its corners.
# Installs blender when it is missing. Not part of `make test`: run it with `make interop`.
# Usage: tests/interop/blender_interop.sh PATH/TO/vaporix
set -euo pipefail
tool=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if ! command -v blender >/dev/null; then
    echo "interop: installing blender" >&2
    SUDO=""
    if [[ $(id -u) -ne 0 ]]; then SUDO="sudo"; fi
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get -o DPkg::Lock::Timeout=600 update -q
    $SUDO apt-get -o DPkg::Lock::Timeout=600 install -y -q --no-install-recommends blender
fi

# A 32^3 ball of smoke (density 1 inside radius 12 cells), one world unit across, centred on
# the origin: grid = world * 32 + 16.
/usr/bin/python3 - "$work/ball.f32" <<'PY'
import struct, sys
n = 32
v = []
for z in range(n):
    for y in range(n):
        for x in range(n):
            d2 = (x - 15.5) ** 2 + (y - 15.5) ** 2 + (z - 15.5) ** 2
            v.append(1.0 if d2 < 144 else 0.0)
open(sys.argv[1], "wb").write(struct.pack("<%df" % len(v), *v))
PY
"$tool" pack --size 32 32 32 --channel 2="$work/ball.f32" \
    --transform 32 0 0 0 32 0 0 0 32 16 16 16 -o "$work/ball.vxg"
"$tool" convert "$work/ball.vxg" -o "$work/ball.vdb"

cat >"$work/render.py" <<'PY'
import sys
import bpy

vdb, out = sys.argv[sys.argv.index("--") + 1:]
bpy.ops.wm.read_factory_settings(use_empty=True)
scene = bpy.context.scene
scene.render.engine = "CYCLES"
scene.cycles.samples = 16
scene.cycles.device = "CPU"
scene.cycles.use_denoising = False
scene.render.resolution_x = scene.render.resolution_y = 64
scene.render.filepath = out
scene.render.image_settings.file_format = "PNG"

world = bpy.data.worlds.new("white")
world.use_nodes = True
world.node_tree.nodes["Background"].inputs["Color"].default_value = (1, 1, 1, 1)
world.node_tree.nodes["Background"].inputs["Strength"].default_value = 1.0
scene.world = world

bpy.ops.object.volume_import(filepath=vdb, align="WORLD", location=(0, 0, 0))
volume = bpy.context.active_object
grids = volume.data.grids
grids.load()
print("interop: grids", [g.name for g in grids])
mat = bpy.data.materials.new("smoke")
mat.use_nodes = True
nodes = mat.node_tree.nodes
for n in list(nodes):
    nodes.remove(n)
shader = nodes.new("ShaderNodeVolumePrincipled")
shader.inputs["Density"].default_value = 20.0
shader.inputs["Color"].default_value = (0, 0, 0, 1)
output = nodes.new("ShaderNodeOutputMaterial")
mat.node_tree.links.new(shader.outputs["Volume"], output.inputs["Volume"])
volume.data.materials.append(mat)

cam_data = bpy.data.cameras.new("cam")
cam_data.type = "ORTHO"
cam_data.ortho_scale = 2.0
cam = bpy.data.objects.new("cam", cam_data)
cam.location = (0, 0, 5)
scene.collection.objects.link(cam)
scene.camera = cam
bpy.ops.render.render(write_still=True)
PY
blender -b --factory-startup --python "$work/render.py" -- "$work/ball.vdb" "$work/ball.png" \
    >"$work/blender.log" 2>&1 || { tail -40 "$work/blender.log"; exit 1; }
grep "interop:" "$work/blender.log" || true

# The centre of the image sees the ball against the white world; the corners see the world.
cat >"$work/check.py" <<'PY'
import sys
import bpy
img = bpy.data.images.load(sys.argv[sys.argv.index("--") + 1])
w, h = img.size
px = img.pixels[:]
def lum(x, y):
    i = (y * w + x) * 4
    return (px[i] + px[i + 1] + px[i + 2]) / 3
centre = lum(w // 2, h // 2)
corners = [lum(1, 1), lum(w - 2, 1), lum(1, h - 2), lum(w - 2, h - 2)]
print("interop: centre %.3f corners %s" % (centre, ", ".join("%.3f" % c for c in corners)))
ok = centre < 0.5 and min(corners) > 0.8
print("interop: %s" % ("PASS" if ok else "FAIL"))
sys.exit(0 if ok else 1)
PY
blender -b --factory-startup --python-exit-code 1 --python "$work/check.py" -- "$work/ball.png" \
    >"$work/check.log" 2>&1 || true
grep "interop:" "$work/check.log"
grep -q "interop: PASS" "$work/check.log"
