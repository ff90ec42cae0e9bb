// Black-body colours by temperature: the XYZ and RGB tables behind physically based fire.
#include "render/Blackbody.h"

#include <cmath>

namespace vaporix {

// CIE 1931 standard colorimetric observer (2 degree), colour-matching functions at 5 nm steps
// from 360 to 710 nm, as published in CIE 015:2018 (Colorimetry, 4th edition) and the CIE's
// table of the 1931 observer. The fire's black bodies have next to nothing beyond 710 nm that
// the eye weighs, so the table stops there.
const float CIE1931_X[CIE_SAMPLES] = {
    0.0001299f,   0.0002321f, 0.0004149f, 0.0007416f,  0.001368f,     // 360 nm
    0.002236f,    0.004243f,  0.00765f,   0.01431f,    0.02319f,      // 385 nm
    0.04351f,     0.07763f,   0.13438f,   0.21477f,    0.2839f,       // 410 nm
    0.3285f,      0.34828f,   0.34806f,   0.3362f,     0.3187f,       // 435 nm
    0.2908f,      0.2511f,    0.19536f,   0.1421f,     0.09564f,      // 460 nm
    0.05795001f,  0.03201f,   0.0147f,    0.0049f,     0.0024f,       // 485 nm
    0.0093f,      0.0291f,    0.06327f,   0.1096f,     0.1655f,       // 510 nm
    0.2257499f,   0.2904f,    0.3597f,    0.4334499f,  0.5120501f,    // 535 nm
    0.5945f,      0.6784f,    0.7621f,    0.8425f,     0.9163f,       // 560 nm
    0.9786f,      1.0263f,    1.0567f,    1.0622f,     1.0456f,       // 585 nm
    1.0026f,      0.9384f,    0.8544499f, 0.7514f,     0.6424f,       // 610 nm
    0.5419f,      0.4479f,    0.3608f,    0.2835f,     0.2187f,       // 635 nm
    0.1649f,      0.1212f,    0.0874f,    0.0636f,     0.04677f,      // 660 nm
    0.0329f,      0.0227f,    0.01584f,   0.01135916f, 0.008110916f,  // 685 nm
    0.005790346f,                                                     // 710 nm
};
const float CIE1931_Y[CIE_SAMPLES] = {
    0.000003917f, 0.000006965f, 0.00001239f, 0.00002202f, 0.000039f,  // 360 nm
    0.000064f,    0.00012f,     0.000217f,   0.000396f,   0.00064f,   // 385 nm
    0.00121f,     0.00218f,     0.004f,      0.0073f,     0.0116f,    // 410 nm
    0.01684f,     0.023f,       0.0298f,     0.038f,      0.048f,     // 435 nm
    0.06f,        0.0739f,      0.09098f,    0.1126f,     0.13902f,   // 460 nm
    0.1693f,      0.20802f,     0.2586f,     0.323f,      0.4073f,    // 485 nm
    0.503f,       0.6082f,      0.71f,       0.7932f,     0.862f,     // 510 nm
    0.9148501f,   0.954f,       0.9803f,     0.9949501f,  1.0f,       // 535 nm
    0.995f,       0.9786f,      0.952f,      0.9154f,     0.87f,      // 560 nm
    0.8163f,      0.757f,       0.6949f,     0.631f,      0.5668f,    // 585 nm
    0.503f,       0.4412f,      0.381f,      0.321f,      0.265f,     // 610 nm
    0.217f,       0.175f,       0.1382f,     0.107f,      0.0816f,    // 635 nm
    0.061f,       0.04458f,     0.032f,      0.0232f,     0.017f,     // 660 nm
    0.01192f,     0.00821f,     0.005723f,   0.004102f,   0.002929f,  // 685 nm
    0.002091f,                                                        // 710 nm
};
const float CIE1931_Z[CIE_SAMPLES] = {
    0.0006061f,  0.001086f,    0.001946f,   0.003486f,    0.006450001f,    // 360 nm
    0.01054999f, 0.02005001f,  0.03621f,    0.06785001f,  0.1102f,         // 385 nm
    0.2074f,     0.3713f,      0.6456f,     1.0390501f,   1.3856f,         // 410 nm
    1.62296f,    1.74706f,     1.7826f,     1.77211f,     1.7441f,         // 435 nm
    1.6692f,     1.5281f,      1.28764f,    1.0419f,      0.8129501f,      // 460 nm
    0.6162f,     0.46518f,     0.3533f,     0.272f,       0.2123f,         // 485 nm
    0.1582f,     0.1117f,      0.07824999f, 0.05725001f,  0.04216f,        // 510 nm
    0.02984f,    0.0203f,      0.0134f,     0.008749999f, 0.005749999f,    // 535 nm
    0.0039f,     0.002749999f, 0.0021f,     0.0018f,      0.001650001f,    // 560 nm
    0.0014f,     0.0011f,      0.001f,      0.0008f,      0.0006f,         // 585 nm
    0.00034f,    0.00024f,     0.00019f,    0.0001f,      0.00004999999f,  // 610 nm
    0.00003f,    0.00002f,     0.00001f,    0.0f,         0.0f,            // 635 nm
    0.0f,        0.0f,         0.0f,        0.0f,         0.0f,            // 660 nm
    0.0f,        0.0f,         0.0f,        0.0f,         0.0f,            // 685 nm
    0.0f,                                                                  // 710 nm
};

namespace {

// Planck's law in the renderer's form: B = C1 / (l^5 (exp(C2 / (K T l)) - 1)), l in metres.
constexpr double PLANCK_C1 = 3.7417712843186317e-16;  // 2 pi h c^2, W m^2
constexpr double PLANCK_HC = 1.9864455003959036e-25;  // h c, J m
constexpr double BOLTZMANN = 1.3806504e-23;           // J / K
/// Brings the sum to the scale the emission curves were tuned for.
constexpr double XYZ_SCALE = 3.1471528e-10;
/// Lumens per watt at the eye's peak: the mean of a row's RGB is 683 Y before the last scale.
constexpr double LUMINOUS_EFFICACY = 683.0;
constexpr double RGB_SCALE = 1.0 / 6000.0;

// XYZ to the renderer's linear RGB.
constexpr double XYZ_TO_RGB[3][3] = {{2.370672, -0.900039, -0.470634},
                                     {-0.513883, 1.425302, 0.088581},
                                     {0.005298, -0.014695, 1.009397}};

struct Tables {
    float xyz[BLACKBODY_ROWS][3];
    float rgb[BLACKBODY_ROWS][3];
};

const Tables& tables() {
    // Computed once per process, on first use (thread-safe static initialisation).
    static const Tables* t = [] {
        auto* built = new Tables{};
        for (int k = BLACKBODY_FIRST_LIT - 1; k < BLACKBODY_END; ++k)
            computeBlackbodyRow(k, built->xyz[k], built->rgb[k]);
        return built;
    }();
    return *t;
}

bool lit(int row) { return row >= BLACKBODY_FIRST_LIT && row < BLACKBODY_END; }

}  // namespace

void computeBlackbodyRow(int kelvin, float xyz[3], float rgb[3]) {
    // 1-3: radiance weighted by the matching functions, summed with the step as a number.
    const double t = kelvin;
    double sum[3] = {0.0, 0.0, 0.0};
    for (int i = 0; i < CIE_SAMPLES; ++i) {
        const double l =
            static_cast<double>(CIE_FIRST_NM + CIE_STEP_NM * static_cast<float>(i)) * 1e-9;
        const double l5 = l * l * l * l * l;
        const double b = PLANCK_C1 / (l5 * (std::exp(PLANCK_HC / (BOLTZMANN * t * l)) - 1.0));
        sum[0] += b * static_cast<double>(CIE1931_X[i]);
        sum[1] += b * static_cast<double>(CIE1931_Y[i]);
        sum[2] += b * static_cast<double>(CIE1931_Z[i]);
    }
    double x[3];
    for (int c = 0; c < 3; ++c) {
        x[c] = sum[c] * static_cast<double>(CIE_STEP_NM) * XYZ_SCALE;
        xyz[c] = static_cast<float>(x[c]);
    }

    // 4: RGB, negatives clamped, scaled to a mean of 683 Y, then to the table's unit.
    double r[3];
    for (int c = 0; c < 3; ++c) {
        r[c] = XYZ_TO_RGB[c][0] * x[0] + XYZ_TO_RGB[c][1] * x[1] + XYZ_TO_RGB[c][2] * x[2];
        if (r[c] < 0.0) r[c] = 0.0;
    }
    const double mean = (r[0] + r[1] + r[2]) / 3.0;
    const double scale = mean > 0.0 ? LUMINOUS_EFFICACY * x[1] / mean * RGB_SCALE : 0.0;
    for (int c = 0; c < 3; ++c) rgb[c] = static_cast<float>(r[c] * scale);
}

int blackbodyRow(float kelvin) {
    const float f = std::floor(kelvin + 0.5f);
    if (!(f > 0.0f)) return 0;
    if (f >= static_cast<float>(BLACKBODY_END)) return BLACKBODY_END;
    return static_cast<int>(f);
}

bool isBlackbodyLit(float kelvin) { return lit(blackbodyRow(kelvin)); }

void blackbodyXYZ(float kelvin, float out[3]) {
    const int row = blackbodyRow(kelvin);
    for (int c = 0; c < 3; ++c) out[c] = lit(row) ? tables().xyz[row][c] : 0.0f;
}

float blackbodyLuminance(float kelvin) {
    const int row = blackbodyRow(kelvin);
    return lit(row) ? tables().xyz[row][1] : 0.0f;
}

void blackbodyRGB(float kelvin, float out[3]) {
    const int row = blackbodyRow(kelvin);
    for (int c = 0; c < 3; ++c) out[c] = lit(row) ? tables().rgb[row][c] : 0.0f;
}

}  // namespace vaporix
