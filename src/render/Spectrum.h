// Real trigonometric spectra of a box of floats: load a field into a power-of-two box, transform
// it along every axis (a sine or cosine transform, so values stay real), filter the
// coefficients, transform back and read the field out.
#pragma once

#include <cstdint>
#include <memory>

#include "foundation/ProgressCallback.h"

namespace vaporix {

/// A spectrum of N dimensions (1 to 3) over a box whose sizes are powers of two. The transform
/// along a line is the mirrored real transform of the line: odd mirror (sine transform) here,
/// even mirror (cosine transform) in CosSpectrum. Forward is unnormalised (twice the sum, as
/// FFTW's REDFT10 / RODFT10); inverse divides by twice the length, so inverse(forward(x)) = x.
/// Lines are transformed in parallel on the job engine; results don't depend on the threads.
template <int N>
class Spectrum {
public:
    static_assert(N >= 1 && N <= 3, "one to three dimensions");

    Spectrum() = default;
    Spectrum(const Spectrum&) = delete;
    Spectrum& operator=(const Spectrum&) = delete;
    virtual ~Spectrum();

    /// Value at a flat index of the box (no check beyond the total).
    virtual void set(int64_t index, float value);
    virtual float get(int64_t index) const;
    /// Rounds each size up to a power of two and allocates the box (zeroed); keeps the box when
    /// it has those sizes already. A size under 1, a size past 2^30 or a box past 2^34 values
    /// leaves nothing allocated. @return false then, or when memory runs out.
    virtual bool allocate(const int sizes[N]);

    /// Allocates for `sizes` and copies the field in: value (x, y, z) from
    /// values[x * stride[0] + y * stride[1] + z * stride[2]]; the padding stays 0.
    bool load(const float* values, const int sizes[N], const int64_t stride[N]);
    /// Transforms along every axis. @return false when cancelled by `progress` (or out of
    /// memory for a line buffer); the values are undefined then.
    bool forward(int threads = -1, ProgressCallback* progress = nullptr);
    /// Transforms back and writes the first `sizes` values of each axis out by the strides.
    bool inverse(float* values,
                 const int sizes[N],
                 const int64_t stride[N],
                 int threads = -1,
                 ProgressCallback* progress = nullptr);

    /// Multiplies every coefficient by s / (kx^2 + ky^2 + kz^2 + s), s = (1 / (2 pi sigma))^2,
    /// k per axis = index * 0.5 / size (cycles per cell).
    void filterLorentzian(float sigma);
    /// Multiplies every coefficient by the table of 257 values read by linear interpolation at
    /// sqrt(kx^2 + ky^2 + kz^2) / 0.5 * 256; 0 from entry 256 on.
    void filterRadial(const float table[257]);

    const int* sizes() const { return mSize; }
    const int* logSizes() const { return mLog; }
    const int64_t* strides() const { return mStride; }
    int64_t total() const { return mTotal; }
    float* data() { return mData.get(); }
    const float* data() const { return mData.get(); }

    /// Test hook: the next `allocate` fails.
    static bool failNextAllocation;

protected:
    /// Transforms `count` lines of length n (a power of two) in place; `lines[i]` holds line i
    /// contiguously. sign -1 forward, +1 inverse (divided by 2n).
    virtual void transformLines(float* const* lines, int count, int n, int sign) const;
    /// The cosine transform of the lines (shared by both kinds).
    static void cosineLines(float* const* lines, int count, int n, int sign);

private:
    bool transformAxes(int sign, int threads, ProgressCallback* progress);

    int mSize[3] = {1, 1, 1};
    int mLog[3] = {0, 0, 0};
    int64_t mStride[3] = {0, 0, 0};
    int64_t mTotal = 0;
    std::unique_ptr<float[]> mData;
};

/// The cosine spectrum: the even mirror of each line, the transform of smooth fields without
/// ringing at the box's faces.
template <int N>
class CosSpectrum : public Spectrum<N> {
protected:
    void transformLines(float* const* lines, int count, int n, int sign) const override;
};

/// The radial low-pass table of the displacement smoothing: 257 entries falling smoothly from 1
/// at frequency 0 to 0 at entry 256 (a Gaussian of 48 entries, times a raised cosine).
const float* radialLowPassTable();

extern template class Spectrum<3>;
extern template class CosSpectrum<3>;

}  // namespace vaporix
