// Tests of the parameter declarations against the published table of both blocks.
#include "playback/ParamTable.h"

#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "playback/VaporixDefaults.h"

using namespace vaporix;

namespace {

const ParamDef& def(const char* name) {
    const ParamDef* d = findParamDef(name);
    EXPECT_NE(d, nullptr) << name;
    static const ParamDef none{};
    return d ? *d : none;
}

/// The default of a new grid object, with its overrides applied; `given` false for the host's
/// zero value.
struct Default {
    bool given;
    double v[3];
    const char* text;
};
struct Range {
    bool given;
    double lo, hi;
};
struct Ui {
    int map;
    ControlKind kind;
    std::vector<int> ids;
    int step;  ///< 0: automatic
};
/// A combo's values written as "0 Box, 1 Linear", or the label; null when neither.
struct Text {
    const char* values;
    const char* label;
};

using T = ParamType;
using C = ControlKind;
constexpr int A = PF_ANIMATABLE;
constexpr int TAB = PF_TAB;
constexpr int TR = PF_TRANSIENT;
constexpr Default NONE{false, {0, 0, 0}, nullptr};
constexpr Default D(double a) { return {true, {a, 0, 0}, nullptr}; }
constexpr Default D(double a, double b, double c) { return {true, {a, b, c}, nullptr}; }
constexpr Default TEXT(const char* s) { return {true, {0, 0, 0}, s}; }
constexpr Range NR{false, 0, 0};
constexpr Range R(double lo, double hi) { return {true, lo, hi}; }
Ui UI(int map, ControlKind kind, std::vector<int> ids, int step = 0) {
    return {map, kind, std::move(ids), step};
}
const Ui NOUI{-1, ControlKind::None, {}, 0};
constexpr Text VALUES(const char* v) { return {v, nullptr}; }
constexpr Text LABEL(const char* l) { return {nullptr, l}; }
constexpr Text NOTEXT{nullptr, nullptr};

struct Row {
    int block;
    int id;
    const char* name;
    ParamType type;
    int flags;  ///< PF_ANIMATABLE, PF_TAB, PF_TRANSIENT
    Default def;
    Range range;
    Ui ui;
    Text text;
};

// Every single value of both blocks, in the order of the published table. The defaults are
// those of a new grid object (its overrides applied).
// clang-format off
const Row ROWS[] = {
    // render block
    {0, 35, "rendstep", T::Int, 0, D(80), R(1, 10000), UI(0, C::Spinner, {1048, 1049}), NOTEXT},
    {0, 442, "rendshadstep", T::Int, 0, D(200), R(1, 10000), UI(0, C::Spinner, {1062, 1066}), NOTEXT},
    {0, 25, "softb", T::Float, A, D(0), R(0, 40), UI(0, C::Spinner, {1054, 1056}), LABEL("Soft boundaries")},
    {0, 36, "sampler", T::Int, 0, D(1), NR, UI(0, C::Combo, {1094}), VALUES("0 Box, 1 Linear, 2 Spherical")},
    {0, 30, "simple_color", T::Point3, A, D(0.2, 0.2, 0.2), NR, UI(2, C::Swatch, {1116}), LABEL("Constant color")},
    {0, 49, "earg", T::Int, 0, D(1), NR, UI(1, C::Combo, {1089}), VALUES("0 Disabled, 1 Temperature, 2 Smoke, 3 Speed, 4 Texture, 5 RGB, 10 Fuel")},
    {0, 50, "darg", T::Int, 0, D(5), NR, UI(2, C::Combo, {1089}), VALUES("0 Disabled, 1 Temperature, 2 Smoke, 3 Speed, 4 Texture, 5 Constant color, 6 RGB, 10 Fuel")},
    {0, 51, "targ", T::Int, 0, D(0), NR, UI(3, C::Combo, {1089}), VALUES("0 Simple smoke, 1 Temperature, 2 Smoke, 3 Speed, 4 Texture, 10 Fuel")},
    {0, 68, "smoketransp", T::Float, A, D(0.5), R(0, 1), UI(3, C::Spinner, {1081, 1082}), LABEL("Simple smoke transp")},
    {0, 406, "usrchmap", T::String, 0, NONE, NR, NOUI, NOTEXT},
    {0, 20, "stoptransp", T::Float, A, D(0.999), R(0, 1), NOUI, LABEL("Stop transp")},
    {0, 14, "skiptransp", T::Float, A, D(0.001), R(0, 1), NOUI, LABEL("Skip transp")},
    {0, 108, "ex", T::Float, A  |  TR, NONE, NR, NOUI, NOTEXT},
    {0, 109, "ey", T::Float, A  |  TR, NONE, NR, NOUI, NOTEXT},
    {0, 110, "tx", T::Float, A  |  TR, NONE, NR, NOUI, NOTEXT},
    {0, 111, "ty", T::Float, A  |  TR, NONE, NR, NOUI, NOTEXT},
    {0, 124, "mod_e", T::Bool, 0, D(0), NR, UI(1, C::Check, {1166}), NOTEXT},
    {0, 125, "mod_d", T::Bool, 0, D(0), NR, UI(2, C::Check, {1166}), NOTEXT},
    {0, 126, "mod_t", T::Bool, 0, D(0), NR, UI(3, C::Check, {1166}), NOTEXT},
    {0, 265, "al_enable", T::Bool, 0, D(1), NR, UI(1, C::Check, {1210}), NOTEXT},
    {0, 40, "lights", T::Int, 0, D(500), NR, NOUI, NOTEXT},
    {0, 266, "al_cutoff", T::Float, 0, D(0.001), R(0, 1), UI(1, C::Spinner, {1125, 1126}), NOTEXT},
    {0, 41, "lightsmult", T::Float, A, D(1), R(0, 100), UI(1, C::Spinner, {1109, 1111}), LABEL("Light Power On World")},
    {0, 444, "lightsmultself", T::Float, A, D(1), R(0, 100), UI(1, C::Spinner, {1293, 1294}), LABEL("Light Power On Self")},
    {0, 168, "radmult", T::Float, A, D(1), R(0.0001, 100), NOUI, LABEL("Radius multiplier")},
    {0, 405, "gridreduct", T::Float, A, D(5), R(0.01, 100), UI(1, C::Spinner, {1129, 1130}), LABEL("Radius multiplier")},
    {0, 42, "selfshadow", T::Int, 0, D(2), NR, UI(1, C::Combo, {1080}), VALUES("0 None, 1 Ray-traced, 2 Grid-based")},
    {0, 127, "al_placing", T::Int, 0, D(2), NR, NOUI, NOTEXT},
    {0, 429, "al_decay", T::Int, 0, D(2), NR, UI(1, C::Combo, {1082}), VALUES("0 None, 1 Inverse, 2 Inverse Square")},
    {0, 183, "persistlights", T::Bool, 0, D(0), NR, UI(1, C::Check, {1081}), NOTEXT},
    {0, 407, "self_illum_map_min_pow", T::Float, 0, D(0.1), NR, NOUI, NOTEXT},
    {0, 228, "subdivs", T::Int, 0, D(8), R(0, 20000), UI(1, C::Spinner, {1113, 1114}), NOTEXT},
    {0, 229, "csubdivs", T::Int, 0, D(1000), R(0, 2000000), UI(1, C::Spinner, {1121, 1124}), NOTEXT},
    {0, 272, "gisubdivs", T::Int, 0, D(100), R(0, 2000000), UI(1, C::Spinner, {1127, 1128}), NOTEXT},
    {0, 131, "no_alpha_e", T::Bool, 0, NONE, NR, NOUI, NOTEXT},
    {0, 428, "fire_has_alpha", T::Bool, 0, NONE, NR, NOUI, NOTEXT},
    {0, 431, "fire_opacity_mode", T::Int, 0, D(1), NR, UI(1, C::Combo, {1083}), VALUES("0 Use Smoke Opacity, 1 Fully Visible, 2 Use Own Opacity")},
    {0, 432, "mbsmooth", T::Int, 0, D(3), NR, NOUI, NOTEXT},
    {0, 218, "emult", T::Float, A, D(1), R(0, 100000), UI(1, C::Spinner, {1119, 1120}), LABEL("Emissive multiplier")},
    {0, 430, "etmult", T::Float, A, D(1), R(0, 100000), UI(1, C::Spinner, {1132, 1133}), LABEL("Fire Opacity Mult")},
    {0, 446, "blackbody", T::Float, A, D(1), R(0, 1), UI(1, C::Spinner, {1134, 1135}), LABEL("Physically Based Fire")},
    {0, 132, "pmbounces", T::Bool, 0, D(1), NR, NOUI, NOTEXT},
    {0, 38, "lightcache", T::Bool, 0, D(1), NR, UI(2, C::Check, {1234}), NOTEXT},
    {0, 267, "subred", T::Float, 0, D(0.9), R(0, 0.999), UI(2, C::Spinner, {1119, 1120}), NOTEXT},
    {0, 52, "noscatter", T::Int, 0, D(3), NR, UI(2, C::Combo, {1090}), VALUES("0 Ray-Traced (GI only), 1 Disabled, 2 Approximate, 3 Approximate+Shadows")},
    {0, 22, "difmul", T::Float, A, D(1), R(0, 20), UI(2, C::Spinner, {1117, 1118}), LABEL("Diffuse multiplier")},
    {0, 426, "transfext", T::Float, A, D(1), R(0.1, 10), UI(2, C::Spinner, {1121, 1123}), LABEL("External Light Transfer")},
    {0, 427, "transfown", T::Float, A, D(1), R(0.1, 10), UI(2, C::Spinner, {1126, 1127}), LABEL("Own Light Transfer")},
    {0, 439, "shad_strength", T::Float, A, D(1), R(0, 100), UI(2, C::Spinner, {1124, 1125}), LABEL("Shadow Strength")},
    {0, 23, "jitter", T::Bool, 0, D(1), NR, NOUI, NOTEXT},
    {0, 173, "usebias", T::Bool, 0, D(0), NR, NOUI, NOTEXT},
    {0, 174, "bias", T::Float, A, D(1), NR, NOUI, LABEL("Bias")},
    {0, 53, "heathaze", T::Bool, 0, NONE, NR, NOUI, NOTEXT},
    {0, 64, "hhfactor", T::Float, A, D(1), R(-1000, 1000), UI(0, C::Spinner, {1050, 1053}), LABEL("Heat haze")},
    {0, 54, "rendsolid", T::Bool, 0, NONE, NR, NOUI, NOTEXT},
    {0, 57, "solidbelow", T::Bool, 0, D(0), NR, UI(0, C::Check, {1073}), NOTEXT},
    {0, 55, "sarg", T::Int, 0, D(2), NR, UI(0, C::Combo, {1089}), VALUES("0 Texture, 1 Temperature, 2 Smoke, 3 Speed, 10 Fuel")},
    {0, 56, "surflevel", T::Float, A, D(0.1), R(-10000, 10000), UI(0, C::Spinner, {1051, 1052}), LABEL("Threshold level")},
    {0, 235, "mbmult", T::Float, A, D(1), R(-10000, 10000), UI(0, C::Spinner, {1060, 1061}), LABEL("Velocity multiplier")},
    {0, 290, "surflevel_m", T::Float, A, D(0.5), NR, NOUI, LABEL("Threshold level (map)")},
    {0, 291, "surflevel_t", T::Float, A, D(0.5), NR, NOUI, LABEL("Threshold level (T)")},
    {0, 292, "surflevel_s", T::Float, A, D(0.1), NR, NOUI, LABEL("Threshold level (Sm)")},
    {0, 293, "surflevel_v", T::Float, A, D(20), NR, NOUI, LABEL("Threshold level (v)")},
    {0, 294, "surflevel_fl", T::Float, A, D(0.1), NR, NOUI, LABEL("Vaporix internal")},
    {0, 69, "geommode", T::Int, 0, NONE, NR, NOUI, NOTEXT},
    {0, 289, "rendMode", T::Int, 0, D(0), NR, UI(0, C::Combo, {1091}), VALUES("0 Volumetric, 1 Volumetric Geometry, 2 Volumetric Heat Haze, 3 Isosurface, 4 Mesh, 5 Ocean Mesh, 6 Cap Mesh")},
    {0, 376, "uwglasses", T::Bool, 0, D(0), NR, UI(0, C::Check, {1090}), NOTEXT},
    {0, 377, "mbself", T::Bool, 0, D(0), NR, UI(0, C::Check, {1096}), NOTEXT},
    {0, 236, "mesher", T::Bool, 0, NONE, NR, NOUI, NOTEXT},
    {0, 237, "ocean", T::Bool, 0, NONE, NR, NOUI, NOTEXT},
    {0, 250, "smoothmesh", T::Int, 0, D(0), R(0, 1000), UI(0, C::Spinner, {1385, 1384}), NOTEXT},
    {0, 386, "useprt", T::Bool, 0, D(0), NR, UI(0, C::Check, {1382}), NOTEXT},
    {0, 387, "prtsz", T::Float, 0, D(0.5), R(0, 1), UI(0, C::Spinner, {1381, 1383}), NOTEXT},
    {0, 251, "oceanlevel", T::Float, A, D(50), R(0, 100), UI(0, C::Spinner, {1078, 1064}), LABEL("Ocean level")},
    {0, 274, "meshsubdiv", T::Float, 0, D(5), R(0, 100), UI(0, C::Spinner, {1079, 1065}), NOTEXT},
    {0, 70, "displacement", T::Bool, 0, D(0), NR, UI(0, C::Check, {1072}), NOTEXT},
    {0, 354, "displ2d", T::Int, 0, D(1), NR, UI(0, C::Combo, {1095}), VALUES("0 Gradient driven, 1 Surface driven, 2 Vector, 3 Advection")},
    {0, 71, "displ0", T::Texmap, 0, NONE, NR, NOUI, NOTEXT},
    {0, 72, "displ1", T::Texmap, 0, NONE, NR, NOUI, NOTEXT},
    {0, 73, "displ2", T::Texmap, 0, NONE, NR, UI(0, C::MapButton, {1092}), NOTEXT},
    {0, 129, "displmul", T::Float, A, D(1), R(-1000, 1000), UI(0, C::Spinner, {1055, 1057}), LABEL("Displacement mult.")},
    {0, 384, "displfade", T::Float, 0, D(20), R(0, 100), UI(0, C::Spinner, {1058, 1059}), NOTEXT},
    {0, 385, "fadebyvel", T::Bool, 0, D(0), NR, UI(0, C::Check, {1074}), NOTEXT},
    {0, 260, "usefadeobj", T::Bool, 0, D(0), NR, UI(0, C::Check, {1404}), NOTEXT},
    {0, 261, "fadeobj", T::Node, 0, NONE, NR, UI(0, C::NodePick, {1403}), NOTEXT},
    {0, 77, "stex", T::Texmap, 0, NONE, NR, UI(0, C::MapButton, {1093}), NOTEXT},
    {0, 74, "etxt", T::Texmap, 0, NONE, NR, UI(1, C::MapButton, {1086}), NOTEXT},
    {0, 75, "dtxt", T::Texmap, 0, NONE, NR, UI(2, C::MapButton, {1086}), NOTEXT},
    {0, 76, "ttxt", T::Texmap, 0, NONE, NR, UI(3, C::MapButton, {1086}), NOTEXT},
    {0, 78, "empszx", T::Int, 0, D(100), NR, NOUI, NOTEXT},
    {0, 79, "empszy", T::Int, 0, D(100), NR, NOUI, NOTEXT},
    {0, 80, "empszz", T::Int, 0, D(100), NR, NOUI, NOTEXT},
    {0, 39, "transpmode", T::Int, 0, D(1), NR, NOUI, NOTEXT},
    {0, 43, "rendinput", T::String, 0, TEXT(""), NR, UI(4, C::Edit, {1067}), NOTEXT},
    {0, 87, "inpoffset", T::Int, 0, D(0), R(-1000000, 1000000), UI(4, C::Spinner, {1152, 1153}), NOTEXT},
    {0, 88, "inplength", T::Int, 0, D(0), R(0, 1000000), UI(4, C::Spinner, {1135, 1136}), NOTEXT},
    {0, 89, "playat", T::Int, 0, D(0), R(-1000000, 1000000), UI(4, C::Spinner, {1133, 1134}), NOTEXT},
    {0, 8, "play_speed", T::Float, 0, D(1), R(-10, 10), UI(4, C::Spinner, {1139, 1140}), NOTEXT},
    {0, 116, "frmblend", T::Int, 0, D(0), NR, UI(4, C::Combo, {1127}), VALUES("0 Interpolation, 1 Velocity")},
    {0, 118, "t2f", T::Float, A, D(0), R(-1000000, 1000000), UI(4, C::Spinner, {1141, 1142}), LABEL("Cache Index")},
    {0, 288, "loopjnt", T::Int, 0, D(0), R(0, 1000), UI(4, C::Spinner, {1137, 1138}), NOTEXT},
    {0, 117, "animmode", T::Int, 0, D(0), NR, UI(4, C::Combo, {1244}), VALUES("0 Linear, 1 Cache Index, 2 Loop")},
    {0, 373, "loadnearest", T::Bool, 0, D(0), NR, UI(4, C::Check, {1080}), NOTEXT},
    {0, 268, "sm_ch", T::Int, 0, D(1), NR, UI(4, C::Combo, {1225}), VALUES("1 Temperature, 2 Smoke, 101 UVW, 10 Fuel, 100 Velocity")},
    {0, 270, "smoothenable_face", T::Bool, 0, D(0), NR, UI(4, C::Check, {1081}), NOTEXT},
    {0, 269, "smoothprm_face", T::Point3, 0, D(0, 0.5, 0.1), R(0, 100000), UI(4, C::Spinner, {1143, 1144, 1148, 1149, 1150, 1151}), NOTEXT},
    {0, 252, "enablesmoothtemp", T::Bool, 0, D(0), NR, NOUI, NOTEXT},
    {0, 253, "enablesmoothsmoke", T::Bool, 0, D(0), NR, NOUI, NOTEXT},
    {0, 254, "enablesmoothuvw", T::Bool, 0, D(0), NR, NOUI, NOTEXT},
    {0, 255, "enablesmoothfuel", T::Bool, 0, D(0), NR, NOUI, NOTEXT},
    {0, 434, "enablesmoothvel", T::Bool, 0, D(0), NR, NOUI, NOTEXT},
    {0, 256, "smoothtemp", T::Point3, 0, D(0, 0.5, 0.1), NR, NOUI, NOTEXT},
    {0, 257, "smoothsmoke", T::Point3, 0, D(0, 0.5, 0.1), NR, NOUI, NOTEXT},
    {0, 258, "smoothuvw", T::Point3, 0, D(0, 0.5, 0.1), NR, NOUI, NOTEXT},
    {0, 259, "smoothfuel", T::Point3, 0, D(0, 0.5, 0.1), NR, NOUI, NOTEXT},
    {0, 435, "smoothvel", T::Point3, 0, D(0, 0.5, 0.1), NR, NOUI, NOTEXT},
    {0, 209, "usegizmo", T::Bool, 0, D(0), NR, UI(0, C::Check, {1087}), NOTEXT},
    {0, 210, "gizmo", T::Node, 0, NONE, NR, UI(0, C::NodePick, {1201}), NOTEXT},
    {0, 219, "invgizmo", T::Bool, 0, D(0), NR, UI(0, C::Check, {1088}), NOTEXT},
    {0, 0, "gamma_mult", T::Float, 0, D(1), NR, NOUI, NOTEXT},
    {0, 404, "exportasvolgrid", T::Bool, 0, D(0), NR, NOUI, NOTEXT},
    {0, 378, "prob_samples", T::Int, 0, D(-1), NR, NOUI, NOTEXT},
    {0, 379, "prob_samples_gi", T::Int, 0, D(-1), NR, NOUI, NOTEXT},
    // preview block
    {1, 27, "prv_temperature", T::Bool, 0, D(1), NR, UI(5, C::Check, {1040}), NOTEXT},
    {1, 44, "prv_t_threshold", T::Float, 0, D(1000), R(-100000, 100000), UI(5, C::Spinner, {1120, 1121}), NOTEXT},
    {1, 156, "prv_t_threshold2", T::Float, 0, D(10000), R(-100000, 100000), UI(5, C::Spinner, {1132, 1133}), NOTEXT},
    {1, 159, "prv_plank_t", T::Bool, 0, D(1), NR, UI(5, C::Check, {1055}), NOTEXT},
    {1, 157, "prv_t_color", T::Point3, 0, D(0, 0, 0), NR, UI(5, C::Swatch, {1053}), NOTEXT},
    {1, 158, "prv_t_color2", T::Point3, 0, D(1, 1, 0), NR, UI(5, C::Swatch, {1054}), NOTEXT},
    {1, 47, "prv_uvw", T::Bool, 0, D(1), NR, UI(5, C::Check, {1044}), NOTEXT},
    {1, 34, "prv_uvw_threshold", T::Float, 0, D(0.01), R(0, 1000000), UI(5, C::Spinner, {1124, 1125}), NOTEXT},
    {1, 164, "prv_uvw_threshold2", T::Float, 0, D(1), R(0, 1e7), UI(5, C::Spinner, {1136, 1137}), NOTEXT},
    {1, 46, "prv_velocity", T::Bool, 0, D(0), NR, UI(5, C::Check, {1046}), NOTEXT},
    {1, 32, "prv_v_color", T::Point3, 0, D(0, 0, 0), NR, UI(5, C::Swatch, {1047}), NOTEXT},
    {1, 167, "prv_v_color2", T::Point3, 0, D(0.5, 0, 0.5), NR, UI(5, C::Swatch, {1059}), NOTEXT},
    {1, 45, "prv_v_threshold", T::Float, 0, D(10), R(0, 10000), UI(5, C::Spinner, {1126, 1127}), NOTEXT},
    {1, 166, "prv_v_threshold2", T::Float, 0, D(1000), R(0, 1e20), UI(5, C::Spinner, {1140, 1141}), NOTEXT},
    {1, 189, "prv_foam", T::Bool, 0, D(1), NR, NOUI, NOTEXT},
    {1, 191, "prv_foam_color", T::Point3, 0, D(1, 1, 1), NR, NOUI, NOTEXT},
    {1, 190, "prv_splashes", T::Bool, 0, D(1), NR, NOUI, NOTEXT},
    {1, 192, "prv_splashes_color", T::Point3, 0, D(0, 1, 0), NR, NOUI, NOTEXT},
    {1, 206, "show_prt_face", T::Bool, 0, NONE, NR, UI(5, C::Check, {1066}), NOTEXT},
    {1, 213, "prv_particles", T::Bool, 0, D(0), NR, UI(5, C::Check, {1060}), NOTEXT},
    {1, 209, "show_prt", T::Bool, TAB, NONE, NR, NOUI, NOTEXT},
    {1, 207, "prv_prt_color_face", T::Point3, 0, NONE, NR, UI(5, C::Swatch, {1067}), NOTEXT},
    {1, 210, "prv_prt_color", T::Point3, TAB, NONE, NR, NOUI, NOTEXT},
    {1, 208, "prv_prt_wspeed_face", T::Float, 0, NONE, R(0, 100000), UI(5, C::Spinner, {1150, 1151}), NOTEXT},
    {1, 211, "prv_prt_wspeed", T::Float, TAB, NONE, NR, NOUI, NOTEXT},
    {1, 212, "prv_prt_name", T::String, TAB, NONE, NR, NOUI, NOTEXT},
    {1, 419, "prv_sect", T::Bool, 0, D(0), NR, UI(5, C::Check, {1057}), NOTEXT},
    {1, 420, "prv_sect_axis", T::Int, 0, D(0), NR, UI(5, C::Combo, {1261}), VALUES("0 X Axis, 1 Y Axis, 2 Z Axis")},
    {1, 421, "prv_sect_lvl", T::Int, 0, D(0), NR, UI(5, C::Spinner, {1142, 1143}, 1), NOTEXT},
    {1, 406, "prv_dwnsmp", T::Int, 0, D(0), R(0, 100), UI(5, C::Spinner, {1128, 1129}), NOTEXT},
    {1, 122, "prv_reduct", T::Float, 0, D(100), NR, NOUI, NOTEXT},
    {1, 124, "prv_autoreduct", T::Bool, 0, D(1), NR, UI(5, C::Check, {1072}), NOTEXT},
    {1, 123, "prv_avonly", T::Bool, 0, D(1), NR, UI(5, C::Check, {1049}), NOTEXT},
    {1, 170, "prv_and", T::Bool, 0, D(0), NR, UI(5, C::Check, {1061}), NOTEXT},
    {1, 443, "prv_autorange", T::Bool, 0, D(1), NR, UI(5, C::Check, {1045}), NOTEXT},
    {1, 26, "show_only_sel", T::Bool, 0, D(1), NR, UI(5, C::Check, {1041}), NOTEXT},
    {1, 119, "gridcells", T::Bool, 0, D(0), NR, UI(5, C::Check, {1048}), NOTEXT},
    {1, 264, "showgrid", T::Bool, 0, D(1), NR, UI(5, C::Check, {1070}), NOTEXT},
    {1, 273, "showmesh", T::Bool, 0, D(0), NR, UI(5, C::Check, {1071}), NOTEXT},
    {1, 81, "iemode", T::Int, 0, D(1), NR, NOUI, NOTEXT},
    {1, 82, "ielist", T::Node, TAB, NONE, NR, NOUI, NOTEXT},
    {1, 130, "exclhidden", T::Bool, 0, D(1), NR, NOUI, NOTEXT},
    {1, 425, "dontask", T::Int, 0, D(0), NR, NOUI, NOTEXT},
    {1, 427, "dontshow", T::Int, TAB, NONE, NR, NOUI, NOTEXT},
    {1, 511, "version", T::Int, 0, D(29), NR, NOUI, NOTEXT},
    {1, 374, "exportas", T::Int, 0, D(0), NR, UI(18, C::Combo, {1420}), VALUES("0 Disabled, 1 Particles, 2 Mesh")},
    {1, 28, "prv_smoke", T::Bool, 0, D(1), NR, UI(5, C::Check, {1042}), NOTEXT},
    {1, 30, "prv_smoke_color", T::Point3, 0, D(0.2, 0.2, 0.2), NR, UI(5, C::Swatch, {1043}), NOTEXT},
    {1, 161, "prv_smoke_color2", T::Point3, 0, D(0.8, 0.8, 0.8), NR, UI(5, C::Swatch, {1056}), NOTEXT},
    {1, 33, "prv_smoke_threshold", T::Float, 0, D(0.001), R(-10000, 10000), UI(5, C::Spinner, {1122, 1123}), NOTEXT},
    {1, 160, "prv_smoke_threshold2", T::Float, 0, D(1), R(-10000, 10000), UI(5, C::Spinner, {1134, 1135}), NOTEXT},
    {1, 141, "prv_fuel", T::Bool, 0, D(1), NR, UI(5, C::Check, {1050}), NOTEXT},
    {1, 143, "prv_fuel_color", T::Point3, 0, D(0, 0, 0), NR, UI(5, C::Swatch, {1051}), NOTEXT},
    {1, 163, "prv_fuel_color2", T::Point3, 0, D(1, 0, 0), NR, UI(5, C::Swatch, {1058}), NOTEXT},
    {1, 142, "prv_fuel_threshold", T::Float, 0, D(0.01), R(-10000, 10000), UI(5, C::Spinner, {1130, 1131}), NOTEXT},
    {1, 162, "prv_fuel_threshold2", T::Float, 0, D(1), R(-10000, 10000), UI(5, C::Spinner, {1138, 1139}), NOTEXT},
    {1, 432, "gpu_viewport", T::Bool, 0, D(0), NR, UI(5, C::Check, {1073}), NOTEXT},
    {1, 147, "prv_gpu_color", T::Point3, 0, D(0, 0, 0), NR, UI(5, C::Swatch, {1052}), NOTEXT},
    {1, 214, "gpu_lighting", T::Bool, 0, D(1), NR, UI(5, C::Check, {1068}), NOTEXT},
    {1, 215, "gpu_lightnode", T::Node, 0, NONE, NR, NOUI, NOTEXT},
    {1, 437, "gpu_lightnodes", T::Node, TAB, NONE, NR, NOUI, NOTEXT},
    {1, 438, "gpu_light_incl", T::Bool, 0, D(1), NR, NOUI, NOTEXT},
    {1, 216, "gpu_ambient", T::Point3, 0, D(0, 0, 0), NR, UI(5, C::Swatch, {1069}), NOTEXT},
    {1, 217, "gpudown", T::Int, 0, D(1), NR, NOUI, NOTEXT},
    {1, 224, "gpu_save", T::Bool, 0, D(1), NR, UI(5, C::Check, {1080}), NOTEXT},
    {1, 263, "gpu_alpha", T::Bool, 0, D(1), NR, UI(5, C::Check, {1224}), NOTEXT},
    {1, 262, "gpu_gamma", T::Float, 0, D(2.2), R(0.01, 10), UI(5, C::Spinner, {1144, 1145}), NOTEXT},
    {1, 402, "gpu_save_from", T::Int, 0, D(0), NR, UI(5, C::Spinner, {1146, 1148}, 1), NOTEXT},
    {1, 403, "gpu_save_to", T::Int, 0, D(0), NR, UI(5, C::Spinner, {1147, 1149}, 1), NOTEXT},
};
// clang-format on

std::string choicesText(const ParamDef& d) {
    std::string s;
    for (const ParamChoice& c : paramChoices(d))
        s += (s.empty() ? "" : ", ") + std::to_string(c.value) + " " + c.text;
    return s;
}

}  // namespace

TEST(ParamTable, BlocksAndRollouts) {
    EXPECT_EQ(renderBlock().id, 4660);
    EXPECT_STREQ(renderBlock().name, "Rend PB");
    EXPECT_EQ(renderBlock().referenceIndex, 0);
    EXPECT_EQ(previewBlock().id, 4662);
    EXPECT_STREQ(previewBlock().name, "preview PB");
    EXPECT_EQ(previewBlock().referenceIndex, 2);
    ASSERT_EQ(paramRollouts().size(), 6u);
    EXPECT_EQ(paramRollouts()[1].dialog, 109);
    EXPECT_STREQ(paramRollouts()[1].title, "Fire");
    EXPECT_STREQ(paramRollouts()[3].title, "Smoke opacity");
    EXPECT_EQ(paramRollouts()[5].dialog, 1274);
}

TEST(ParamTable, IdsUniquePerBlockAndNamesUniqueOverall) {
    std::set<std::string> names;
    for (int b = 0; b < PARAM_BLOCK_COUNT; ++b) {
        std::set<int> ids;
        const ParamBlockDef& block = paramBlock(b);
        for (int i = 0; i < block.count; ++i) {
            EXPECT_TRUE(ids.insert(block.params[i].id).second) << block.params[i].name;
            EXPECT_TRUE(names.insert(block.params[i].name).second) << block.params[i].name;
        }
    }
    // 123 single values and 72 curve tables in the render block, 69 in the preview block.
    EXPECT_EQ(renderBlock().count, 123 + 72);
    EXPECT_EQ(previewBlock().count, 69);
}

TEST(ParamTable, EverySingleValueAsPublished) {
    int counted[PARAM_BLOCK_COUNT] = {0, 0};
    for (const Row& r : ROWS) {
        SCOPED_TRACE(r.name);
        int block = -1;
        const ParamDef* d = findParamDef(r.name, &block);
        ASSERT_NE(d, nullptr);
        ++counted[r.block];
        EXPECT_EQ(block, r.block);
        EXPECT_EQ(d->id, r.id);
        EXPECT_EQ(d->type, r.type);
        EXPECT_EQ(d->isAnimatable(), (r.flags & A) != 0);
        EXPECT_EQ(d->isTab(), (r.flags & TAB) != 0);
        EXPECT_EQ(d->isTransient(), (r.flags & TR) != 0);

        // The default a new object gets.
        const ParamValue v = defaultValue(*d, &gridObjectDefaults());
        const Default& w = r.def;
        switch (r.type) {
            case ParamType::Int:
            case ParamType::Bool:
                EXPECT_EQ(v.i, static_cast<int>(w.v[0]));
                break;
            case ParamType::Float:
                EXPECT_EQ(v.f, static_cast<float>(w.v[0]));
                break;
            case ParamType::Point3:
                EXPECT_EQ(v.v, (Vector{static_cast<float>(w.v[0]), static_cast<float>(w.v[1]),
                                       static_cast<float>(w.v[2])}));
                break;
            case ParamType::String:
            case ParamType::Texmap:
                EXPECT_EQ(v.s, w.text ? w.text : "");
                break;
            case ParamType::Node:
                EXPECT_EQ(v.node, 0);
                break;
        }
        if (!w.given) {
            EXPECT_FALSE(d->def.given);
        }

        EXPECT_EQ(d->range.given, r.range.given);
        if (r.range.given) {
            EXPECT_DOUBLE_EQ(d->range.min, r.range.lo);
            EXPECT_DOUBLE_EQ(d->range.max, r.range.hi);
        }

        EXPECT_EQ(d->ui.kind, r.ui.kind);
        if (r.ui.kind != ControlKind::None) {
            EXPECT_EQ(d->ui.map, r.ui.map);
            EXPECT_EQ(std::vector<int>(d->ui.ids, d->ui.ids + d->ui.idCount), r.ui.ids);
            EXPECT_EQ(d->ui.spinStep, r.ui.step);
        }

        if (r.text.values)
            EXPECT_EQ(choicesText(*d), r.text.values);
        else
            EXPECT_EQ(d->values, nullptr);
        if (r.text.label)
            EXPECT_STREQ(d->label, r.text.label);
        else
            EXPECT_EQ(d->label, nullptr);
    }
    // Nothing declared beyond the table and the curve tables.
    EXPECT_EQ(counted[0], 123);
    EXPECT_EQ(counted[1], 69);
}

TEST(ParamTable, EveryCurveTable) {
    // Host flags 0x1001 (animatable, variable size) and empty until the curve defaults fill
    // them, for all 72 tables of the render block.
    const auto expect = [](const std::string& name, int id, ParamType type, const char* label) {
        SCOPED_TRACE(name);
        int block = -1;
        const ParamDef* d = findParamDef(name, &block);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(block, 0);
        EXPECT_EQ(d->id, id);
        EXPECT_EQ(d->type, type);
        EXPECT_TRUE(d->isTab());
        EXPECT_TRUE(d->isAnimatable());
        EXPECT_FALSE(d->def.given);
        EXPECT_EQ(d->ui.kind, ControlKind::None);
        if (label)
            EXPECT_STREQ(d->label, label);
        else
            EXPECT_EQ(d->label, nullptr);
    };
    const char channels[4] = {'t', 's', 'v', 'f'};
    int tables = 0;
    for (int k = 0; k < 4; ++k) {
        const std::string c(1, channels[k]);
        expect("epower_" + c, 301 + k, T::Point3, "Emissive power");
        expect("transp_" + c, 311 + k, T::Point3, "Transparency");
        expect("ecolorx_" + c, 322 + 2 * k, T::Float, "Emissive color");
        expect("ecolory_" + c, 323 + 2 * k, T::Point3, "Emissive color");
        expect("dcolorx_" + c, 342 + 2 * k, T::Float, "Diffuse color");
        expect("dcolory_" + c, 343 + 2 * k, T::Point3, "Diffuse color");
        for (const char* g : {"ecolor", "dcolor"}) {
            const std::string base = std::string(g) + "_" + c;
            const int first = (g[0] == 'e' ? 448 : 460) + 3 * k;
            expect(base + "." + base + "p", first, T::Float, nullptr);
            expect(base + "." + base + "c", first + 1, T::Point3, nullptr);
            expect(base + "." + base + "i", first + 2, T::Int, nullptr);
        }
        for (const char* g : {"epower", "tpower"}) {
            const std::string base = std::string(g) + "_" + c;
            const int first = (g[0] == 'e' ? 472 : 484) + 3 * k;
            expect(base + "." + base + "_p", first, T::Float, nullptr);
            expect(base + "." + base + "_v", first + 1, T::Float, nullptr);
            expect(base + "." + base + "_i", first + 2, T::Int, nullptr);
        }
        tables += 18;
    }
    EXPECT_EQ(tables, 72);
}

TEST(ParamTable, LookupById) {
    // Same id in both blocks; the block decides.
    EXPECT_EQ(findParamDefById(RENDER_BLOCK_ID, 406), &def("usrchmap"));
    EXPECT_EQ(findParamDefById(PREVIEW_BLOCK_ID, 406), &def("prv_dwnsmp"));
    EXPECT_EQ(findParamDefById(PREVIEW_BLOCK_ID, 9999), nullptr);
    EXPECT_EQ(findParamDef("no_such_param"), nullptr);
}

TEST(ParamTable, ComboValues) {
    const auto earg = paramChoices(def("earg"));
    ASSERT_EQ(earg.size(), 7u);
    EXPECT_EQ(earg[6].value, 10);
    EXPECT_EQ(earg[6].text, "Fuel");
    const auto darg = paramChoices(def("darg"));
    EXPECT_EQ(darg[5].text, "Constant color");
    EXPECT_EQ(darg[6].value, 6);
    const auto sm = paramChoices(def("sm_ch"));
    ASSERT_EQ(sm.size(), 5u);
    EXPECT_EQ(sm[2].value, 101);
    EXPECT_EQ(sm[2].text, "UVW");
    EXPECT_EQ(paramChoices(def("noscatter"))[0].text, "Ray-Traced (GI only)");
    EXPECT_TRUE(paramChoices(def("rendstep")).empty());
}

TEST(ParamTable, EnableRules) {
    struct Rule {
        int blockId;
        const char* check;
        std::vector<int> greyed;
    };
    const Rule want[] = {
        {RENDER_BLOCK_ID, "al_enable", {266, 41, 444, 42, 183, 228, 229, 272, 429, 405}},
        {RENDER_BLOCK_ID, "lightcache", {267}},
        {RENDER_BLOCK_ID, "useprt", {387}},
        {RENDER_BLOCK_ID, "displacement", {71, 72, 73, 129, 384, 385}},
        {PREVIEW_BLOCK_ID, "prv_sect", {420, 421}},
        {PREVIEW_BLOCK_ID, "showgrid", {119}},
        {PREVIEW_BLOCK_ID, "gpu_viewport", {216, 214}},
        {PREVIEW_BLOCK_ID, "gpu_lighting", {216}},
    };
    ASSERT_EQ(paramEnableRules().size(), std::size(want));
    for (size_t k = 0; k < std::size(want); ++k) {
        const ParamEnableRule& rule = paramEnableRules()[k];
        EXPECT_EQ(rule.blockId, want[k].blockId);
        EXPECT_STREQ(rule.check, want[k].check);
        EXPECT_EQ(rule.greyed, want[k].greyed);
        int block = -1;
        const ParamDef* check = findParamDef(rule.check, &block);
        ASSERT_NE(check, nullptr) << rule.check;
        EXPECT_EQ(check->type, ParamType::Bool) << rule.check;
        EXPECT_EQ(paramBlock(block).id, rule.blockId) << rule.check;
        for (int id : rule.greyed) EXPECT_NE(findParamDefById(rule.blockId, id), nullptr) << id;
    }
}

TEST(ParamTable, GridObjectDefaultsOverrideTheDescription) {
    const VaporixDefaults& d = gridObjectDefaults();
    EXPECT_EQ(defaultValue(def("rendinput"), &d).s, "");
    EXPECT_EQ(defaultValue(def("rendinput"), nullptr).s, "$(same_as_output)");
    EXPECT_EQ(defaultValue(def("prv_t_color2"), &d).v, (Vector{1, 1, 0}));
    EXPECT_EQ(defaultValue(def("prv_t_color2"), nullptr).v, (Vector{0, 0, 1}));
    EXPECT_EQ(defaultValue(def("prv_particles"), &d).i, 0);
    EXPECT_EQ(defaultValue(def("prv_particles"), nullptr).i, 1);
    // Parameters that ask but have no override keep the fallback.
    EXPECT_EQ(defaultValue(def("sarg"), &d).i, 2);
    EXPECT_FLOAT_EQ(defaultValue(def("surflevel"), &d).f, 0.1f);
    EXPECT_EQ(defaultValue(def("rendMode"), &d).i, 0);
    EXPECT_FLOAT_EQ(defaultValue(def("prv_t_threshold2"), &d).f, 10000.0f);
    EXPECT_EQ(defaultValue(def("prv_plank_t"), &d).i, 1);
    // Only parameters that ask are answered by the defaults object.
    VaporixDefaultsMax custom;
    custom.setInt("rendstep", 5);
    custom.setInt("sarg", 10);
    EXPECT_EQ(defaultValue(def("rendstep"), &custom).i, 80);
    EXPECT_EQ(defaultValue(def("sarg"), &custom).i, 10);
}

TEST(ParamTable, ClampToRange) {
    EXPECT_FLOAT_EQ(clampToRange(def("play_speed"), ParamValue::ofFloat(25.0f)).f, 10.0f);
    EXPECT_FLOAT_EQ(clampToRange(def("play_speed"), ParamValue::ofFloat(-25.0f)).f, -10.0f);
    EXPECT_EQ(clampToRange(def("playat"), ParamValue::ofInt(5000000)).i, 1000000);
    EXPECT_EQ(clampToRange(def("inpoffset"), ParamValue::ofInt(-5000000)).i, -1000000);
    EXPECT_EQ(clampToRange(def("lights"), ParamValue::ofInt(-7)).i, -7);  // no range
    const Vector v = clampToRange(def("smoothprm_face"), ParamValue::ofVector({-1, 5, 1e9f})).v;
    EXPECT_EQ(v, (Vector{0, 5, 100000}));
    EXPECT_EQ(clampToRange(def("jitter"), ParamValue::ofInt(7)).i, 1);
}
