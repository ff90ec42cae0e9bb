// The declaration of every parameter of a grid object: ids, names, types, defaults, ranges and
// controls of the render and preview blocks, in one table that everything else reads.
#include "playback/ParamTable.h"

#include <cstdlib>
#include <cstring>
#include <unordered_map>

namespace vaporix {

namespace {

using T = ParamType;
constexpr uint16_t A = PF_ANIMATABLE;
constexpr uint16_t TAB = PF_TAB;
constexpr uint16_t TR = PF_TRANSIENT;
constexpr uint16_t ASK = PF_ASK_DEFAULT;

constexpr ParamDefault D() { return ParamDefault{}; }
constexpr ParamDefault D(double a) { return ParamDefault{{a, 0.0, 0.0}, nullptr, true}; }
constexpr ParamDefault D(double a, double b, double c) {
    return ParamDefault{{a, b, c}, nullptr, true};
}
constexpr ParamDefault DS(const char* s) { return ParamDefault{{0.0, 0.0, 0.0}, s, true}; }
constexpr ParamDefault ON = D(1);
constexpr ParamDefault OFF = D(0);

constexpr ParamRange NR{};
constexpr ParamRange R(double lo, double hi) { return ParamRange{lo, hi, true}; }

constexpr ParamUi NOUI{};
constexpr ParamUi ui1(ControlKind k, int map, int id) {
    return ParamUi{map, k, {id, 0, 0, 0, 0, 0}, 1, 0};
}
constexpr ParamUi SPIN(int map, int edit, int spin, int step = 0) {
    return ParamUi{map, ControlKind::Spinner, {edit, spin, 0, 0, 0, 0}, 2, step};
}
constexpr ParamUi SPIN3(int map, int e0, int s0, int e1, int s1, int e2, int s2) {
    return ParamUi{map, ControlKind::Spinner, {e0, s0, e1, s1, e2, s2}, 6, 0};
}
constexpr ParamUi COMBO(int map, int id) { return ui1(ControlKind::Combo, map, id); }
constexpr ParamUi CHECK(int map, int id) { return ui1(ControlKind::Check, map, id); }
constexpr ParamUi SWATCH(int map, int id) { return ui1(ControlKind::Swatch, map, id); }
constexpr ParamUi EDIT(int map, int id) { return ui1(ControlKind::Edit, map, id); }
constexpr ParamUi MAPBTN(int map, int id) { return ui1(ControlKind::MapButton, map, id); }
constexpr ParamUi NODEPICK(int map, int id) { return ui1(ControlKind::NodePick, map, id); }

// Channel selectors of the mapping arguments.
constexpr const char* EARG_VALUES =
    "0=Disabled;1=Temperature;2=Smoke;3=Speed;4=Texture;5=RGB;10=Fuel";
constexpr const char* DARG_VALUES =
    "0=Disabled;1=Temperature;2=Smoke;3=Speed;4=Texture;5=Constant color;6=RGB;10=Fuel";
constexpr const char* TARG_VALUES =
    "0=Simple smoke;1=Temperature;2=Smoke;3=Speed;4=Texture;10=Fuel";

// Columns: id, name, type, flags, default, range, control, label, combo values.
const ParamDef RENDER_PARAMS[] = {
    {35, "rendstep", T::Int, 0, D(80), R(1, 10000), SPIN(0, 1048, 1049)},
    {442, "rendshadstep", T::Int, 0, D(200), R(1, 10000), SPIN(0, 1062, 1066)},
    {25, "softb", T::Float, A, D(0), R(0, 40), SPIN(0, 1054, 1056), "Soft boundaries"},
    {36, "sampler", T::Int, 0, D(1), NR, COMBO(0, 1094), nullptr, "0=Box;1=Linear;2=Spherical"},
    {30, "simple_color", T::Point3, A, D(0.2, 0.2, 0.2), NR, SWATCH(2, 1116), "Constant color"},
    {49, "earg", T::Int, 0, D(1), NR, COMBO(1, 1089), nullptr, EARG_VALUES},
    {50, "darg", T::Int, 0, D(5), NR, COMBO(2, 1089), nullptr, DARG_VALUES},
    {51, "targ", T::Int, 0, D(0), NR, COMBO(3, 1089), nullptr, TARG_VALUES},
    {68, "smoketransp", T::Float, A, D(0.5), R(0, 1), SPIN(3, 1081, 1082), "Simple smoke transp"},
    {406, "usrchmap", T::String, 0, D(), NR, NOUI},
    {20, "stoptransp", T::Float, A, D(0.999), R(0, 1), NOUI, "Stop transp"},
    {14, "skiptransp", T::Float, A, D(0.001), R(0, 1), NOUI, "Skip transp"},
    // Kept for old scenes; not stored, keyed only by script.
    {108, "ex", T::Float, A | TR, D(), NR, NOUI},
    {109, "ey", T::Float, A | TR, D(), NR, NOUI},
    {110, "tx", T::Float, A | TR, D(), NR, NOUI},
    {111, "ty", T::Float, A | TR, D(), NR, NOUI},
    {124, "mod_e", T::Bool, 0, OFF, NR, CHECK(1, 1166)},
    {125, "mod_d", T::Bool, 0, OFF, NR, CHECK(2, 1166)},
    {126, "mod_t", T::Bool, 0, OFF, NR, CHECK(3, 1166)},
    {265, "al_enable", T::Bool, 0, ON, NR, CHECK(1, 1210)},
    {40, "lights", T::Int, 0, D(500), NR, NOUI},
    {266, "al_cutoff", T::Float, 0, D(0.001), R(0, 1), SPIN(1, 1125, 1126)},
    {41, "lightsmult", T::Float, A, D(1), R(0, 100), SPIN(1, 1109, 1111), "Light Power On World"},
    {444, "lightsmultself", T::Float, A, D(1), R(0, 100), SPIN(1, 1293, 1294),
     "Light Power On Self"},
    {168, "radmult", T::Float, A, D(1), R(0.0001, 100), NOUI, "Radius multiplier"},
    {405, "gridreduct", T::Float, A, D(5), R(0.01, 100), SPIN(1, 1129, 1130), "Radius multiplier"},
    {42, "selfshadow", T::Int, 0, D(2), NR, COMBO(1, 1080), nullptr,
     "0=None;1=Ray-traced;2=Grid-based"},
    {127, "al_placing", T::Int, 0, D(2), NR, NOUI},
    {429, "al_decay", T::Int, 0, D(2), NR, COMBO(1, 1082), nullptr,
     "0=None;1=Inverse;2=Inverse Square"},
    {183, "persistlights", T::Bool, 0, OFF, NR, CHECK(1, 1081)},
    {407, "self_illum_map_min_pow", T::Float, 0, D(0.1), NR, NOUI},
    {228, "subdivs", T::Int, 0, D(8), R(0, 20000), SPIN(1, 1113, 1114)},
    {229, "csubdivs", T::Int, 0, D(1000), R(0, 2000000), SPIN(1, 1121, 1124)},
    {272, "gisubdivs", T::Int, 0, D(100), R(0, 2000000), SPIN(1, 1127, 1128)},
    {131, "no_alpha_e", T::Bool, 0, D(), NR, NOUI},
    {428, "fire_has_alpha", T::Bool, 0, D(), NR, NOUI},
    {431, "fire_opacity_mode", T::Int, 0, D(1), NR, COMBO(1, 1083), nullptr,
     "0=Use Smoke Opacity;1=Fully Visible;2=Use Own Opacity"},
    {432, "mbsmooth", T::Int, 0, D(3), NR, NOUI},
    {218, "emult", T::Float, A, D(1), R(0, 100000), SPIN(1, 1119, 1120), "Emissive multiplier"},
    {430, "etmult", T::Float, A, D(1), R(0, 100000), SPIN(1, 1132, 1133), "Fire Opacity Mult"},
    {446, "blackbody", T::Float, A, D(1), R(0, 1), SPIN(1, 1134, 1135), "Physically Based Fire"},
    {132, "pmbounces", T::Bool, 0, ON, NR, NOUI},
    {38, "lightcache", T::Bool, 0, ON, NR, CHECK(2, 1234)},
    {267, "subred", T::Float, 0, D(0.9), R(0, 0.999), SPIN(2, 1119, 1120)},
    {52, "noscatter", T::Int, 0, D(3), NR, COMBO(2, 1090), nullptr,
     "0=Ray-Traced (GI only);1=Disabled;2=Approximate;3=Approximate+Shadows"},
    {22, "difmul", T::Float, A, D(1), R(0, 20), SPIN(2, 1117, 1118), "Diffuse multiplier"},
    {426, "transfext", T::Float, A, D(1), R(0.1, 10), SPIN(2, 1121, 1123),
     "External Light Transfer"},
    {427, "transfown", T::Float, A, D(1), R(0.1, 10), SPIN(2, 1126, 1127), "Own Light Transfer"},
    {439, "shad_strength", T::Float, A, D(1), R(0, 100), SPIN(2, 1124, 1125), "Shadow Strength"},
    {23, "jitter", T::Bool, 0, ON, NR, NOUI},
    {173, "usebias", T::Bool, 0, OFF, NR, NOUI},
    {174, "bias", T::Float, A, D(1), NR, NOUI, "Bias"},
    {53, "heathaze", T::Bool, 0, D(), NR, NOUI},
    {64, "hhfactor", T::Float, A, D(1), R(-1000, 1000), SPIN(0, 1050, 1053), "Heat haze"},
    {54, "rendsolid", T::Bool, 0, D(), NR, NOUI},
    {57, "solidbelow", T::Bool, 0, OFF, NR, CHECK(0, 1073)},
    {55, "sarg", T::Int, ASK, D(2), NR, COMBO(0, 1089), nullptr,
     "0=Texture;1=Temperature;2=Smoke;3=Speed;10=Fuel"},
    {56, "surflevel", T::Float, A | ASK, D(0.1), R(-10000, 10000), SPIN(0, 1051, 1052),
     "Threshold level"},
    {235, "mbmult", T::Float, A, D(1), R(-10000, 10000), SPIN(0, 1060, 1061),
     "Velocity multiplier"},
    {290, "surflevel_m", T::Float, A, D(0.5), NR, NOUI, "Threshold level (map)"},
    {291, "surflevel_t", T::Float, A, D(0.5), NR, NOUI, "Threshold level (T)"},
    {292, "surflevel_s", T::Float, A, D(0.1), NR, NOUI, "Threshold level (Sm)"},
    {293, "surflevel_v", T::Float, A, D(20), NR, NOUI, "Threshold level (v)"},
    {294, "surflevel_fl", T::Float, A, D(0.1), NR, NOUI, "Vaporix internal"},
    {69, "geommode", T::Int, 0, D(), NR, NOUI},
    {289, "rendMode", T::Int, ASK, D(0), NR, COMBO(0, 1091), nullptr,
     "0=Volumetric;1=Volumetric Geometry;2=Volumetric Heat Haze;3=Isosurface;4=Mesh;"
     "5=Ocean Mesh;6=Cap Mesh"},
    {376, "uwglasses", T::Bool, 0, OFF, NR, CHECK(0, 1090)},
    {377, "mbself", T::Bool, 0, OFF, NR, CHECK(0, 1096)},
    {236, "mesher", T::Bool, 0, D(), NR, NOUI},
    {237, "ocean", T::Bool, 0, D(), NR, NOUI},
    {250, "smoothmesh", T::Int, 0, D(0), R(0, 1000), SPIN(0, 1385, 1384)},
    {386, "useprt", T::Bool, 0, OFF, NR, CHECK(0, 1382)},
    {387, "prtsz", T::Float, 0, D(0.5), R(0, 1), SPIN(0, 1381, 1383)},
    {251, "oceanlevel", T::Float, A, D(50), R(0, 100), SPIN(0, 1078, 1064), "Ocean level"},
    {274, "meshsubdiv", T::Float, 0, D(5), R(0, 100), SPIN(0, 1079, 1065)},
    {70, "displacement", T::Bool, 0, OFF, NR, CHECK(0, 1072)},
    {354, "displ2d", T::Int, 0, D(1), NR, COMBO(0, 1095), nullptr,
     "0=Gradient driven;1=Surface driven;2=Vector;3=Advection"},
    {71, "displ0", T::Texmap, 0, D(), NR, NOUI},
    {72, "displ1", T::Texmap, 0, D(), NR, NOUI},
    {73, "displ2", T::Texmap, 0, D(), NR, MAPBTN(0, 1092)},
    {129, "displmul", T::Float, A, D(1), R(-1000, 1000), SPIN(0, 1055, 1057), "Displacement mult."},
    {384, "displfade", T::Float, 0, D(20), R(0, 100), SPIN(0, 1058, 1059)},
    {385, "fadebyvel", T::Bool, 0, OFF, NR, CHECK(0, 1074)},
    {260, "usefadeobj", T::Bool, 0, OFF, NR, CHECK(0, 1404)},
    {261, "fadeobj", T::Node, 0, D(), NR, NODEPICK(0, 1403)},
    {77, "stex", T::Texmap, 0, D(), NR, MAPBTN(0, 1093)},
    {74, "etxt", T::Texmap, 0, D(), NR, MAPBTN(1, 1086)},
    {75, "dtxt", T::Texmap, 0, D(), NR, MAPBTN(2, 1086)},
    {76, "ttxt", T::Texmap, 0, D(), NR, MAPBTN(3, 1086)},
    {78, "empszx", T::Int, 0, D(100), NR, NOUI},
    {79, "empszy", T::Int, 0, D(100), NR, NOUI},
    {80, "empszz", T::Int, 0, D(100), NR, NOUI},
    {39, "transpmode", T::Int, 0, D(1), NR, NOUI},
    {43, "rendinput", T::String, ASK, DS("$(same_as_output)"), NR, EDIT(4, 1067)},
    {87, "inpoffset", T::Int, 0, D(0), R(-1000000, 1000000), SPIN(4, 1152, 1153)},
    {88, "inplength", T::Int, 0, D(0), R(0, 1000000), SPIN(4, 1135, 1136)},
    {89, "playat", T::Int, 0, D(0), R(-1000000, 1000000), SPIN(4, 1133, 1134)},
    {8, "play_speed", T::Float, 0, D(1), R(-10, 10), SPIN(4, 1139, 1140)},
    {116, "frmblend", T::Int, 0, D(0), NR, COMBO(4, 1127), nullptr, "0=Interpolation;1=Velocity"},
    {118, "t2f", T::Float, A, D(0), R(-1e6, 1e6), SPIN(4, 1141, 1142), "Cache Index"},
    {288, "loopjnt", T::Int, 0, D(0), R(0, 1000), SPIN(4, 1137, 1138)},
    {117, "animmode", T::Int, 0, D(0), NR, COMBO(4, 1244), nullptr,
     "0=Linear;1=Cache Index;2=Loop"},
    {373, "loadnearest", T::Bool, 0, OFF, NR, CHECK(4, 1080)},
    {268, "sm_ch", T::Int, 0, D(1), NR, COMBO(4, 1225), nullptr,
     "1=Temperature;2=Smoke;101=UVW;10=Fuel;100=Velocity"},
    {270, "smoothenable_face", T::Bool, 0, OFF, NR, CHECK(4, 1081)},
    {269, "smoothprm_face", T::Point3, 0, D(0, 0.5, 0.1), R(0, 100000),
     SPIN3(4, 1143, 1144, 1148, 1149, 1150, 1151)},
    {252, "enablesmoothtemp", T::Bool, 0, OFF, NR, NOUI},
    {253, "enablesmoothsmoke", T::Bool, 0, OFF, NR, NOUI},
    {254, "enablesmoothuvw", T::Bool, 0, OFF, NR, NOUI},
    {255, "enablesmoothfuel", T::Bool, 0, OFF, NR, NOUI},
    {434, "enablesmoothvel", T::Bool, 0, OFF, NR, NOUI},
    {256, "smoothtemp", T::Point3, 0, D(0, 0.5, 0.1), NR, NOUI},
    {257, "smoothsmoke", T::Point3, 0, D(0, 0.5, 0.1), NR, NOUI},
    {258, "smoothuvw", T::Point3, 0, D(0, 0.5, 0.1), NR, NOUI},
    {259, "smoothfuel", T::Point3, 0, D(0, 0.5, 0.1), NR, NOUI},
    {435, "smoothvel", T::Point3, 0, D(0, 0.5, 0.1), NR, NOUI},
    {209, "usegizmo", T::Bool, 0, OFF, NR, CHECK(0, 1087)},
    {210, "gizmo", T::Node, 0, D(), NR, NODEPICK(0, 1201)},
    {219, "invgizmo", T::Bool, 0, OFF, NR, CHECK(0, 1088)},
    {0, "gamma_mult", T::Float, 0, D(1), NR, NOUI},
    {404, "exportasvolgrid", T::Bool, 0, OFF, NR, NOUI},
    {378, "prob_samples", T::Int, 0, D(-1), NR, NOUI},
    {379, "prob_samples_gi", T::Int, 0, D(-1), NR, NOUI},
    // Curve and gradient tables: keyed, variable length, empty until the curve defaults fill
    // them. The old flat forms stay for reading old scenes.
    {301, "epower_t", T::Point3, A | TAB, D(), NR, NOUI, "Emissive power"},
    {302, "epower_s", T::Point3, A | TAB, D(), NR, NOUI, "Emissive power"},
    {303, "epower_v", T::Point3, A | TAB, D(), NR, NOUI, "Emissive power"},
    {304, "epower_f", T::Point3, A | TAB, D(), NR, NOUI, "Emissive power"},
    {311, "transp_t", T::Point3, A | TAB, D(), NR, NOUI, "Transparency"},
    {312, "transp_s", T::Point3, A | TAB, D(), NR, NOUI, "Transparency"},
    {313, "transp_v", T::Point3, A | TAB, D(), NR, NOUI, "Transparency"},
    {314, "transp_f", T::Point3, A | TAB, D(), NR, NOUI, "Transparency"},
    {322, "ecolorx_t", T::Float, A | TAB, D(), NR, NOUI, "Emissive color"},
    {323, "ecolory_t", T::Point3, A | TAB, D(), NR, NOUI, "Emissive color"},
    {324, "ecolorx_s", T::Float, A | TAB, D(), NR, NOUI, "Emissive color"},
    {325, "ecolory_s", T::Point3, A | TAB, D(), NR, NOUI, "Emissive color"},
    {326, "ecolorx_v", T::Float, A | TAB, D(), NR, NOUI, "Emissive color"},
    {327, "ecolory_v", T::Point3, A | TAB, D(), NR, NOUI, "Emissive color"},
    {328, "ecolorx_f", T::Float, A | TAB, D(), NR, NOUI, "Emissive color"},
    {329, "ecolory_f", T::Point3, A | TAB, D(), NR, NOUI, "Emissive color"},
    {342, "dcolorx_t", T::Float, A | TAB, D(), NR, NOUI, "Diffuse color"},
    {343, "dcolory_t", T::Point3, A | TAB, D(), NR, NOUI, "Diffuse color"},
    {344, "dcolorx_s", T::Float, A | TAB, D(), NR, NOUI, "Diffuse color"},
    {345, "dcolory_s", T::Point3, A | TAB, D(), NR, NOUI, "Diffuse color"},
    {346, "dcolorx_v", T::Float, A | TAB, D(), NR, NOUI, "Diffuse color"},
    {347, "dcolory_v", T::Point3, A | TAB, D(), NR, NOUI, "Diffuse color"},
    {348, "dcolorx_f", T::Float, A | TAB, D(), NR, NOUI, "Diffuse color"},
    {349, "dcolory_f", T::Point3, A | TAB, D(), NR, NOUI, "Diffuse color"},
    {448, "ecolor_t.ecolor_tp", T::Float, A | TAB, D(), NR, NOUI},
    {449, "ecolor_t.ecolor_tc", T::Point3, A | TAB, D(), NR, NOUI},
    {450, "ecolor_t.ecolor_ti", T::Int, A | TAB, D(), NR, NOUI},
    {451, "ecolor_s.ecolor_sp", T::Float, A | TAB, D(), NR, NOUI},
    {452, "ecolor_s.ecolor_sc", T::Point3, A | TAB, D(), NR, NOUI},
    {453, "ecolor_s.ecolor_si", T::Int, A | TAB, D(), NR, NOUI},
    {454, "ecolor_v.ecolor_vp", T::Float, A | TAB, D(), NR, NOUI},
    {455, "ecolor_v.ecolor_vc", T::Point3, A | TAB, D(), NR, NOUI},
    {456, "ecolor_v.ecolor_vi", T::Int, A | TAB, D(), NR, NOUI},
    {457, "ecolor_f.ecolor_fp", T::Float, A | TAB, D(), NR, NOUI},
    {458, "ecolor_f.ecolor_fc", T::Point3, A | TAB, D(), NR, NOUI},
    {459, "ecolor_f.ecolor_fi", T::Int, A | TAB, D(), NR, NOUI},
    {460, "dcolor_t.dcolor_tp", T::Float, A | TAB, D(), NR, NOUI},
    {461, "dcolor_t.dcolor_tc", T::Point3, A | TAB, D(), NR, NOUI},
    {462, "dcolor_t.dcolor_ti", T::Int, A | TAB, D(), NR, NOUI},
    {463, "dcolor_s.dcolor_sp", T::Float, A | TAB, D(), NR, NOUI},
    {464, "dcolor_s.dcolor_sc", T::Point3, A | TAB, D(), NR, NOUI},
    {465, "dcolor_s.dcolor_si", T::Int, A | TAB, D(), NR, NOUI},
    {466, "dcolor_v.dcolor_vp", T::Float, A | TAB, D(), NR, NOUI},
    {467, "dcolor_v.dcolor_vc", T::Point3, A | TAB, D(), NR, NOUI},
    {468, "dcolor_v.dcolor_vi", T::Int, A | TAB, D(), NR, NOUI},
    {469, "dcolor_f.dcolor_fp", T::Float, A | TAB, D(), NR, NOUI},
    {470, "dcolor_f.dcolor_fc", T::Point3, A | TAB, D(), NR, NOUI},
    {471, "dcolor_f.dcolor_fi", T::Int, A | TAB, D(), NR, NOUI},
    {472, "epower_t.epower_t_p", T::Float, A | TAB, D(), NR, NOUI},
    {473, "epower_t.epower_t_v", T::Float, A | TAB, D(), NR, NOUI},
    {474, "epower_t.epower_t_i", T::Int, A | TAB, D(), NR, NOUI},
    {475, "epower_s.epower_s_p", T::Float, A | TAB, D(), NR, NOUI},
    {476, "epower_s.epower_s_v", T::Float, A | TAB, D(), NR, NOUI},
    {477, "epower_s.epower_s_i", T::Int, A | TAB, D(), NR, NOUI},
    {478, "epower_v.epower_v_p", T::Float, A | TAB, D(), NR, NOUI},
    {479, "epower_v.epower_v_v", T::Float, A | TAB, D(), NR, NOUI},
    {480, "epower_v.epower_v_i", T::Int, A | TAB, D(), NR, NOUI},
    {481, "epower_f.epower_f_p", T::Float, A | TAB, D(), NR, NOUI},
    {482, "epower_f.epower_f_v", T::Float, A | TAB, D(), NR, NOUI},
    {483, "epower_f.epower_f_i", T::Int, A | TAB, D(), NR, NOUI},
    {484, "tpower_t.tpower_t_p", T::Float, A | TAB, D(), NR, NOUI},
    {485, "tpower_t.tpower_t_v", T::Float, A | TAB, D(), NR, NOUI},
    {486, "tpower_t.tpower_t_i", T::Int, A | TAB, D(), NR, NOUI},
    {487, "tpower_s.tpower_s_p", T::Float, A | TAB, D(), NR, NOUI},
    {488, "tpower_s.tpower_s_v", T::Float, A | TAB, D(), NR, NOUI},
    {489, "tpower_s.tpower_s_i", T::Int, A | TAB, D(), NR, NOUI},
    {490, "tpower_v.tpower_v_p", T::Float, A | TAB, D(), NR, NOUI},
    {491, "tpower_v.tpower_v_v", T::Float, A | TAB, D(), NR, NOUI},
    {492, "tpower_v.tpower_v_i", T::Int, A | TAB, D(), NR, NOUI},
    {493, "tpower_f.tpower_f_p", T::Float, A | TAB, D(), NR, NOUI},
    {494, "tpower_f.tpower_f_v", T::Float, A | TAB, D(), NR, NOUI},
    {495, "tpower_f.tpower_f_i", T::Int, A | TAB, D(), NR, NOUI},
};

const ParamDef PREVIEW_PARAMS[] = {
    {27, "prv_temperature", T::Bool, 0, ON, NR, CHECK(5, 1040)},
    {44, "prv_t_threshold", T::Float, ASK, D(1000), R(-100000, 100000), SPIN(5, 1120, 1121)},
    {156, "prv_t_threshold2", T::Float, ASK, D(10000), R(-100000, 100000), SPIN(5, 1132, 1133)},
    {159, "prv_plank_t", T::Bool, ASK, ON, NR, CHECK(5, 1055)},
    {157, "prv_t_color", T::Point3, 0, D(0, 0, 0), NR, SWATCH(5, 1053)},
    {158, "prv_t_color2", T::Point3, ASK, D(0, 0, 1), NR, SWATCH(5, 1054)},
    {47, "prv_uvw", T::Bool, 0, ON, NR, CHECK(5, 1044)},
    {34, "prv_uvw_threshold", T::Float, 0, D(0.01), R(0, 1e6), SPIN(5, 1124, 1125)},
    {164, "prv_uvw_threshold2", T::Float, 0, D(1), R(0, 1e7), SPIN(5, 1136, 1137)},
    {46, "prv_velocity", T::Bool, 0, OFF, NR, CHECK(5, 1046)},
    {32, "prv_v_color", T::Point3, 0, D(0, 0, 0), NR, SWATCH(5, 1047)},
    {167, "prv_v_color2", T::Point3, 0, D(0.5, 0, 0.5), NR, SWATCH(5, 1059)},
    {45, "prv_v_threshold", T::Float, 0, D(10), R(0, 10000), SPIN(5, 1126, 1127)},
    {166, "prv_v_threshold2", T::Float, 0, D(1000), R(0, 1e20), SPIN(5, 1140, 1141)},
    {189, "prv_foam", T::Bool, 0, ON, NR, NOUI},
    {191, "prv_foam_color", T::Point3, 0, D(1, 1, 1), NR, NOUI},
    {190, "prv_splashes", T::Bool, 0, ON, NR, NOUI},
    {192, "prv_splashes_color", T::Point3, 0, D(0, 1, 0), NR, NOUI},
    {206, "show_prt_face", T::Bool, 0, D(), NR, CHECK(5, 1066)},
    {213, "prv_particles", T::Bool, ASK, ON, NR, CHECK(5, 1060)},
    {209, "show_prt", T::Bool, TAB, D(), NR, NOUI},
    {207, "prv_prt_color_face", T::Point3, 0, D(), NR, SWATCH(5, 1067)},
    {210, "prv_prt_color", T::Point3, TAB, D(), NR, NOUI},
    {208, "prv_prt_wspeed_face", T::Float, 0, D(), R(0, 100000), SPIN(5, 1150, 1151)},
    {211, "prv_prt_wspeed", T::Float, TAB, D(), NR, NOUI},
    {212, "prv_prt_name", T::String, TAB, D(), NR, NOUI},
    {419, "prv_sect", T::Bool, 0, OFF, NR, CHECK(5, 1057)},
    {420, "prv_sect_axis", T::Int, 0, D(0), NR, COMBO(5, 1261), nullptr,
     "0=X Axis;1=Y Axis;2=Z Axis"},
    {421, "prv_sect_lvl", T::Int, 0, D(0), NR, SPIN(5, 1142, 1143, 1)},
    {406, "prv_dwnsmp", T::Int, 0, D(0), R(0, 100), SPIN(5, 1128, 1129)},
    {122, "prv_reduct", T::Float, 0, D(100), NR, NOUI},
    {124, "prv_autoreduct", T::Bool, 0, ON, NR, CHECK(5, 1072)},
    {123, "prv_avonly", T::Bool, 0, ON, NR, CHECK(5, 1049)},
    {170, "prv_and", T::Bool, 0, OFF, NR, CHECK(5, 1061)},
    {443, "prv_autorange", T::Bool, 0, ON, NR, CHECK(5, 1045)},
    {26, "show_only_sel", T::Bool, 0, ON, NR, CHECK(5, 1041)},
    {119, "gridcells", T::Bool, 0, OFF, NR, CHECK(5, 1048)},
    {264, "showgrid", T::Bool, 0, ON, NR, CHECK(5, 1070)},
    {273, "showmesh", T::Bool, 0, OFF, NR, CHECK(5, 1071)},
    {81, "iemode", T::Int, 0, D(1), NR, NOUI},
    {82, "ielist", T::Node, TAB, D(), NR, NOUI},
    {130, "exclhidden", T::Bool, 0, ON, NR, NOUI},
    {425, "dontask", T::Int, 0, D(0), NR, NOUI},
    {427, "dontshow", T::Int, TAB, D(), NR, NOUI},
    {511, "version", T::Int, 0, D(PARAMS_VERSION), NR, NOUI},
    {374, "exportas", T::Int, 0, D(0), NR, COMBO(18, 1420), nullptr,
     "0=Disabled;1=Particles;2=Mesh"},
    {28, "prv_smoke", T::Bool, 0, ON, NR, CHECK(5, 1042)},
    {30, "prv_smoke_color", T::Point3, 0, D(0.2, 0.2, 0.2), NR, SWATCH(5, 1043)},
    {161, "prv_smoke_color2", T::Point3, 0, D(0.8, 0.8, 0.8), NR, SWATCH(5, 1056)},
    {33, "prv_smoke_threshold", T::Float, 0, D(0.001), R(-10000, 10000), SPIN(5, 1122, 1123)},
    {160, "prv_smoke_threshold2", T::Float, 0, D(1), R(-10000, 10000), SPIN(5, 1134, 1135)},
    {141, "prv_fuel", T::Bool, 0, ON, NR, CHECK(5, 1050)},
    {143, "prv_fuel_color", T::Point3, 0, D(0, 0, 0), NR, SWATCH(5, 1051)},
    {163, "prv_fuel_color2", T::Point3, 0, D(1, 0, 0), NR, SWATCH(5, 1058)},
    {142, "prv_fuel_threshold", T::Float, 0, D(0.01), R(-10000, 10000), SPIN(5, 1130, 1131)},
    {162, "prv_fuel_threshold2", T::Float, 0, D(1), R(-10000, 10000), SPIN(5, 1138, 1139)},
    {432, "gpu_viewport", T::Bool, 0, OFF, NR, CHECK(5, 1073)},
    {147, "prv_gpu_color", T::Point3, 0, D(0, 0, 0), NR, SWATCH(5, 1052)},
    {214, "gpu_lighting", T::Bool, 0, ON, NR, CHECK(5, 1068)},
    {215, "gpu_lightnode", T::Node, 0, D(), NR, NOUI},
    {437, "gpu_lightnodes", T::Node, TAB, D(), NR, NOUI},
    {438, "gpu_light_incl", T::Bool, 0, ON, NR, NOUI},
    {216, "gpu_ambient", T::Point3, 0, D(0, 0, 0), NR, SWATCH(5, 1069)},
    {217, "gpudown", T::Int, 0, D(1), NR, NOUI},
    {224, "gpu_save", T::Bool, 0, ON, NR, CHECK(5, 1080)},
    {263, "gpu_alpha", T::Bool, 0, ON, NR, CHECK(5, 1224)},
    {262, "gpu_gamma", T::Float, 0, D(2.2), R(0.01, 10), SPIN(5, 1144, 1145)},
    {402, "gpu_save_from", T::Int, 0, D(0), NR, SPIN(5, 1146, 1148, 1)},
    {403, "gpu_save_to", T::Int, 0, D(0), NR, SPIN(5, 1147, 1149, 1)},
};

const ParamBlockDef BLOCKS[PARAM_BLOCK_COUNT] = {
    {RENDER_BLOCK_ID, "Rend PB", 0, RENDER_PARAMS,
     static_cast<int>(sizeof RENDER_PARAMS / sizeof RENDER_PARAMS[0])},
    {PREVIEW_BLOCK_ID, "preview PB", 2, PREVIEW_PARAMS,
     static_cast<int>(sizeof PREVIEW_PARAMS / sizeof PREVIEW_PARAMS[0])},
};

}  // namespace

const char* paramTypeName(ParamType t) {
    switch (t) {
        case ParamType::Int:
            return "int";
        case ParamType::Float:
            return "float";
        case ParamType::Bool:
            return "bool";
        case ParamType::Point3:
            return "point3";
        case ParamType::String:
            return "string";
        case ParamType::Texmap:
            return "texmap";
        case ParamType::Node:
            return "node";
    }
    return "?";
}

const char* controlKindName(ControlKind k) {
    switch (k) {
        case ControlKind::None:
            return "none";
        case ControlKind::Spinner:
            return "spinner";
        case ControlKind::Combo:
            return "combo";
        case ControlKind::Check:
            return "check";
        case ControlKind::Swatch:
            return "swatch";
        case ControlKind::Edit:
            return "edit";
        case ControlKind::MapButton:
            return "map button";
        case ControlKind::NodePick:
            return "node pick";
    }
    return "?";
}

std::vector<ParamChoice> paramChoices(const ParamDef& def) {
    std::vector<ParamChoice> out;
    if (!def.values) return out;
    const char* p = def.values;
    while (*p) {
        const char* end = std::strchr(p, ';');
        if (!end) end = p + std::strlen(p);
        const char* eq =
            static_cast<const char*>(std::memchr(p, '=', static_cast<size_t>(end - p)));
        if (eq) out.push_back({std::atoi(p), std::string(eq + 1, end)});
        p = *end ? end + 1 : end;
    }
    return out;
}

const ParamBlockDef& paramBlock(int index) { return BLOCKS[index == 1 ? 1 : 0]; }
const ParamBlockDef& renderBlock() { return BLOCKS[0]; }
const ParamBlockDef& previewBlock() { return BLOCKS[1]; }

const std::vector<ParamRollout>& paramRollouts() {
    static const std::vector<ParamRollout> rollouts = {
        {0, 108, "Volumetric Render settings"},
        {1, 109, "Fire"},
        {2, 112, "Smoke color"},
        {3, 111, "Smoke opacity"},
        {4, 119, ""},   // cache input and time bend
        {5, 1274, ""},  // preview
    };
    return rollouts;
}

const ParamDef* findParamDef(const std::string& name, int* blockIndex, int* paramIndex) {
    struct Place {
        int block;
        int index;
    };
    // Built once; names are unique across both blocks, and the render block wins anyway.
    static const std::unordered_map<std::string, Place> byName = [] {
        std::unordered_map<std::string, Place> m;
        for (int b = 0; b < PARAM_BLOCK_COUNT; ++b)
            for (int i = 0; i < BLOCKS[b].count; ++i)
                m.emplace(BLOCKS[b].params[i].name, Place{b, i});
        return m;
    }();
    const auto it = byName.find(name);
    if (it == byName.end()) return nullptr;
    if (blockIndex) *blockIndex = it->second.block;
    if (paramIndex) *paramIndex = it->second.index;
    return &BLOCKS[it->second.block].params[it->second.index];
}

const ParamDef* findParamDefById(int blockId, int id) {
    for (const ParamBlockDef& b : BLOCKS) {
        if (b.id != blockId) continue;
        for (int i = 0; i < b.count; ++i)
            if (b.params[i].id == id) return &b.params[i];
    }
    return nullptr;
}

const std::vector<ParamEnableRule>& paramEnableRules() {
    static const std::vector<ParamEnableRule> rules = {
        {RENDER_BLOCK_ID, "al_enable", {266, 41, 444, 42, 183, 228, 229, 272, 429, 405}},
        {RENDER_BLOCK_ID, "lightcache", {267}},
        {RENDER_BLOCK_ID, "useprt", {387}},
        {RENDER_BLOCK_ID, "displacement", {71, 72, 73, 129, 384, 385}},
        {PREVIEW_BLOCK_ID, "prv_sect", {420, 421}},
        {PREVIEW_BLOCK_ID, "showgrid", {119}},
        {PREVIEW_BLOCK_ID, "gpu_viewport", {216, 214}},
        {PREVIEW_BLOCK_ID, "gpu_lighting", {216}},
    };
    return rules;
}

}  // namespace vaporix
