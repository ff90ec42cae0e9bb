// Black-body colours by temperature: the XYZ and RGB tables behind physically based fire.
#pragma once

namespace vaporix {

/// Rows of the tables: one per Kelvin, 0 to 10000. Rows 150 to 9999 are computed; a
/// temperature whose row is under 151 or at 10000 and above reads as black.
constexpr int BLACKBODY_ROWS = 10001;
constexpr int BLACKBODY_FIRST_LIT = 151;
constexpr int BLACKBODY_END = 10000;

/// The CIE 1931 standard colorimetric observer (2 degrees), 5 nm steps from 360 nm: 71 rows.
constexpr int CIE_SAMPLES = 71;
constexpr float CIE_FIRST_NM = 360.0f;
constexpr float CIE_STEP_NM = 5.0f;
extern const float CIE1931_X[CIE_SAMPLES];
extern const float CIE1931_Y[CIE_SAMPLES];
extern const float CIE1931_Z[CIE_SAMPLES];

/// Row of a temperature: floor(T + 0.5), clamped to 0..10000 (NaN gives 0).
int blackbodyRow(float kelvin);

/// True when a temperature's row is computed: 151 to 9999 after rounding.
bool isBlackbodyLit(float kelvin);

/// The XYZ of a temperature (black outside the lit rows).
void blackbodyXYZ(float kelvin, float out[3]);
/// Y of the XYZ row: the luminance the emission tables use.
float blackbodyLuminance(float kelvin);
/// The RGB of a temperature: XYZ through the renderer's matrix, negatives clamped, scaled to
/// a mean of 683 * Y, times 1/6000.
void blackbodyRGB(float kelvin, float out[3]);

/// One row computed from scratch, without the table: what the table holds for that Kelvin.
void computeBlackbodyRow(int kelvin, float xyz[3], float rgb[3]);

}  // namespace vaporix
