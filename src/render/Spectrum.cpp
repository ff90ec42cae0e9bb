// Sine and cosine spectra of a power-of-two box: each line's mirrored transform is an FFT of
// half the mirrored length (the even and odd samples reordered), two real lines packed into one
// complex FFT; the FFT is the iterative radix-2 one with bit reversal and twiddle tables.
#include "render/Spectrum.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "foundation/MTJobs.h"

namespace vaporix {

namespace {

constexpr double PI = 3.14159265358979323846;

/// Tables of one line length: bit reversal, FFT twiddles e^(2 pi i k / n) for k < n / 2, and the
/// quarter-wave turns e^(i pi k / 2n) of the cosine transform.
struct LinePlan {
    int n = 0;
    std::vector<int> bitrev;
    std::vector<float> cosT, sinT;
    std::vector<float> cosQ, sinQ;

    explicit LinePlan(int length) : n(length) {
        int bits = 0;
        while ((1 << bits) < n) ++bits;
        bitrev.resize(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i) {
            int r = 0;
            for (int b = 0; b < bits; ++b) r |= ((i >> b) & 1) << (bits - 1 - b);
            bitrev[static_cast<size_t>(i)] = r;
        }
        cosT.resize(static_cast<size_t>(std::max(n / 2, 1)));
        sinT.resize(cosT.size());
        for (size_t k = 0; k < cosT.size(); ++k) {
            cosT[k] = static_cast<float>(std::cos(2.0 * PI * double(k) / n));
            sinT[k] = static_cast<float>(std::sin(2.0 * PI * double(k) / n));
        }
        cosQ.resize(static_cast<size_t>(n));
        sinQ.resize(static_cast<size_t>(n));
        for (int k = 0; k < n; ++k) {
            cosQ[static_cast<size_t>(k)] = static_cast<float>(std::cos(PI * k / (2.0 * n)));
            sinQ[static_cast<size_t>(k)] = static_cast<float>(std::sin(PI * k / (2.0 * n)));
        }
    }
};

/// The plan of a length, made once per thread.
const LinePlan& planFor(int n) {
    thread_local std::vector<std::unique_ptr<LinePlan>> plans;
    int log = 0;
    while ((1 << log) < n) ++log;
    if (plans.size() <= static_cast<size_t>(log)) plans.resize(static_cast<size_t>(log) + 1);
    auto& p = plans[static_cast<size_t>(log)];
    if (!p) p = std::make_unique<LinePlan>(n);
    return *p;
}

/// In-place complex FFT of length n: sign -1 forward, +1 inverse (unscaled).
void fft(float* re, float* im, const LinePlan& plan, int sign) {
    const int n = plan.n;
    for (int i = 0; i < n; ++i) {
        const int j = plan.bitrev[static_cast<size_t>(i)];
        if (j > i) {
            std::swap(re[i], re[j]);
            std::swap(im[i], im[j]);
        }
    }
    const float s = sign < 0 ? -1.0f : 1.0f;
    for (int len = 2; len <= n; len <<= 1) {
        const int half = len >> 1;
        const int step = n / len;
        for (int start = 0; start < n; start += len) {
            for (int k = 0; k < half; ++k) {
                const float wr = plan.cosT[static_cast<size_t>(k * step)];
                const float wi = s * plan.sinT[static_cast<size_t>(k * step)];
                const int a = start + k, b = a + half;
                const float tr = re[b] * wr - im[b] * wi;
                const float ti = re[b] * wi + im[b] * wr;
                re[b] = re[a] - tr;
                im[b] = im[a] - ti;
                re[a] += tr;
                im[a] += ti;
            }
        }
    }
}

/// Per-thread complex scratch of a line length.
struct LineScratch {
    std::vector<float> re, im;
};

}  // namespace

template <int N>
bool Spectrum<N>::failNextAllocation = false;

template <int N>
Spectrum<N>::~Spectrum() = default;

template <int N>
void Spectrum<N>::set(int64_t index, float value) {
    if (mData && index >= 0 && index < mTotal) mData[static_cast<size_t>(index)] = value;
}

template <int N>
float Spectrum<N>::get(int64_t index) const {
    return mData && index >= 0 && index < mTotal ? mData[static_cast<size_t>(index)] : 0.0f;
}

template <int N>
bool Spectrum<N>::allocate(const int sizes[N]) {
    int size[3] = {1, 1, 1}, log[3] = {0, 0, 0};
    for (int a = 0; a < N; ++a) {
        if (sizes[a] < 1 || sizes[a] > (1 << 30)) {
            mData.reset();
            mTotal = 0;
            return false;
        }
        while ((1 << log[a]) < sizes[a]) ++log[a];
        size[a] = 1 << log[a];
    }
    const int64_t total = int64_t(size[0]) * size[1] * size[2];
    if (total <= 0 || total > (int64_t(1) << 34)) {
        mData.reset();
        mTotal = 0;
        return false;
    }
    if (failNextAllocation) {
        failNextAllocation = false;
        mData.reset();
        mTotal = 0;
        return false;
    }
    if (!mData || total != mTotal || std::memcmp(size, mSize, sizeof size) != 0) {
        mData.reset(new (std::nothrow) float[static_cast<size_t>(total)]);
        if (!mData) {
            mTotal = 0;
            return false;
        }
    }
    std::memcpy(mSize, size, sizeof size);
    std::memcpy(mLog, log, sizeof log);
    mStride[0] = 1;
    mStride[1] = size[0];
    mStride[2] = int64_t(size[0]) * size[1];
    mTotal = total;
    std::fill(mData.get(), mData.get() + total, 0.0f);
    return true;
}

template <int N>
bool Spectrum<N>::load(const float* values, const int sizes[N], const int64_t stride[N]) {
    if (!allocate(sizes)) return false;
    int n[3] = {1, 1, 1};
    int64_t s[3] = {0, 0, 0};
    for (int a = 0; a < N; ++a) {
        n[a] = sizes[a];
        s[a] = stride[a];
    }
    for (int z = 0; z < n[2]; ++z)
        for (int y = 0; y < n[1]; ++y) {
            float* row = mData.get() + mStride[1] * y + mStride[2] * z;
            const float* in = values + s[1] * y + s[2] * z;
            for (int x = 0; x < n[0]; ++x) row[x] = in[s[0] * x];
        }
    return true;
}

template <int N>
bool Spectrum<N>::inverse(float* values,
                          const int sizes[N],
                          const int64_t stride[N],
                          int threads,
                          ProgressCallback* progress) {
    if (!mData) return false;
    if (!transformAxes(1, threads, progress)) return false;
    int n[3] = {1, 1, 1};
    int64_t s[3] = {0, 0, 0};
    for (int a = 0; a < N; ++a) {
        n[a] = sizes[a];
        s[a] = stride[a];
    }
    for (int z = 0; z < n[2]; ++z)
        for (int y = 0; y < n[1]; ++y)
            for (int x = 0; x < n[0]; ++x) {
                // Past the box's power-of-two size a position reads 0.
                const bool inside = x < mSize[0] && y < mSize[1] && z < mSize[2];
                values[s[0] * x + s[1] * y + s[2] * z] =
                    inside ? mData[static_cast<size_t>(x + mStride[1] * y + mStride[2] * z)]
                           : 0.0f;
            }
    return true;
}

template <int N>
bool Spectrum<N>::forward(int threads, ProgressCallback* progress) {
    return mData && transformAxes(-1, threads, progress);
}

template <int N>
bool Spectrum<N>::transformAxes(int sign, int threads, ProgressCallback* progress) {
    // Lines go in batches of adjacent lines: along y and z their gathers then share cache lines.
    constexpr int BATCH = 16;
    MTFunction engine(nullptr, threads);
    for (int axis = 0; axis < N; ++axis) {
        const int n = mSize[axis];
        const int64_t lines = mTotal / n;
        const int b = axis == 0 ? 1 : 0, c = axis == 2 ? 1 : 2;
        const int64_t sb = mStride[b], sc = mStride[c], sa = mStride[axis];
        const int64_t nb = mSize[b];
        const int64_t batches = (lines + BATCH - 1) / BATCH;
        float* data = mData.get();
        std::atomic<bool> failed{false};
        const bool done = engine.forRange(
            static_cast<uint64_t>(batches),
            [&](uint64_t first, uint64_t last, Job&) {
                std::vector<float> buffer;
                try {
                    buffer.resize(static_cast<size_t>(BATCH) * static_cast<size_t>(n));
                } catch (const std::bad_alloc&) {
                    failed.store(true);
                    return;
                }
                float* ptr[BATCH];
                for (uint64_t batch = first; batch < last; ++batch) {
                    const int64_t l0 = int64_t(batch) * BATCH;
                    const int count = static_cast<int>(std::min<int64_t>(BATCH, lines - l0));
                    int64_t base[BATCH];
                    for (int i = 0; i < count; ++i) {
                        const int64_t l = l0 + i;
                        base[i] = (l % nb) * sb + (l / nb) * sc;
                        if (sa == 1) {
                            ptr[i] = data + base[i];  // contiguous: in place
                        } else {
                            ptr[i] = buffer.data() + size_t(i) * size_t(n);
                            for (int k = 0; k < n; ++k) ptr[i][k] = data[base[i] + sa * k];
                        }
                    }
                    transformLines(ptr, count, n, sign);
                    if (sa != 1)
                        for (int i = 0; i < count; ++i)
                            for (int k = 0; k < n; ++k) data[base[i] + sa * k] = ptr[i][k];
                }
            },
            progress);
        if (!done || failed.load()) return false;
    }
    return true;
}

template <int N>
void Spectrum<N>::transformLines(float* const* lines, int count, int n, int sign) const {
    // The sine transform is the cosine transform of the line with every other sample negated,
    // read backwards: sin(pi (2j+1)(k+1) / 2n) = (-1)^j cos(pi (2j+1)(n-1-k) / 2n).
    if (sign < 0) {
        for (int i = 0; i < count; ++i)
            for (int j = 1; j < n; j += 2) lines[i][j] = -lines[i][j];
        cosineLines(lines, count, n, sign);
        for (int i = 0; i < count; ++i) std::reverse(lines[i], lines[i] + n);
    } else {
        for (int i = 0; i < count; ++i) std::reverse(lines[i], lines[i] + n);
        cosineLines(lines, count, n, sign);
        for (int i = 0; i < count; ++i)
            for (int j = 1; j < n; j += 2) lines[i][j] = -lines[i][j];
    }
}

template <int N>
void Spectrum<N>::cosineLines(float* const* lines, int count, int n, int sign) {
    if (n == 1) {
        // The mirrored line of one sample: twice the sample, and back.
        for (int i = 0; i < count; ++i) lines[i][0] *= sign < 0 ? 2.0f : 0.5f;
        return;
    }
    const LinePlan& plan = planFor(n);
    thread_local LineScratch scratch;
    scratch.re.resize(static_cast<size_t>(n));
    scratch.im.resize(static_cast<size_t>(n));
    float* re = scratch.re.data();
    float* im = scratch.im.data();
    const float* c = plan.cosQ.data();
    const float* s = plan.sinQ.data();
    const int half = n / 2;
    // Two real lines ride in one complex FFT: a in the real part, b in the imaginary.
    for (int i = 0; i < count; i += 2) {
        float* a = lines[i];
        float* b = i + 1 < count ? lines[i + 1] : nullptr;
        if (sign < 0) {
            // Even samples forwards, odd samples backwards: the mirrored line of length 2n
            // folded to n.
            for (int j = 0; j < half; ++j) {
                re[j] = a[2 * j];
                re[n - 1 - j] = a[2 * j + 1];
                im[j] = b ? b[2 * j] : 0.0f;
                im[n - 1 - j] = b ? b[2 * j + 1] : 0.0f;
            }
            fft(re, im, plan, -1);
            // Y_k = 2 Re(e^(-i pi k / 2n) V_k), V of a and b split from the packed spectrum.
            for (int k = 0; k < n; ++k) {
                const int m = (n - k) & (n - 1);
                const float ya = c[k] * (re[k] + re[m]) + s[k] * (im[k] - im[m]);
                const float yb = c[k] * (im[k] + im[m]) - s[k] * (re[k] - re[m]);
                a[k] = ya;
                if (b) b[k] = yb;
            }
            // a and b now hold Y in place (the FFT scratch kept the inputs).
        } else {
            // V_k = e^(i pi k / 2n) (Y_k - i Y_(n-k)) / 2 with Y_n = 0; packed as Va + i Vb.
            for (int k = 0; k < n; ++k) {
                const float yak = a[k], yam = k ? a[n - k] : 0.0f;
                const float ybk = b ? b[k] : 0.0f, ybm = (b && k) ? b[n - k] : 0.0f;
                const float var = 0.5f * (c[k] * yak + s[k] * yam);
                const float vai = 0.5f * (s[k] * yak - c[k] * yam);
                const float vbr = 0.5f * (c[k] * ybk + s[k] * ybm);
                const float vbi = 0.5f * (s[k] * ybk - c[k] * ybm);
                re[k] = var - vbi;
                im[k] = vai + vbr;
            }
            fft(re, im, plan, 1);
            const float scale = 1.0f / static_cast<float>(n);
            for (int j = 0; j < half; ++j) {
                a[2 * j] = re[j] * scale;
                a[2 * j + 1] = re[n - 1 - j] * scale;
                if (b) {
                    b[2 * j] = im[j] * scale;
                    b[2 * j + 1] = im[n - 1 - j] * scale;
                }
            }
        }
    }
}

template <int N>
void CosSpectrum<N>::transformLines(float* const* lines, int count, int n, int sign) const {
    Spectrum<N>::cosineLines(lines, count, n, sign);
}

namespace {

/// Frequency of coefficient `index` of an axis of `size`, in cycles per cell.
inline float axisFrequency(int index, int size) {
    return static_cast<float>(index) * 0.5f / static_cast<float>(size);
}

template <int N, typename F>
void filterBox(Spectrum<N>& spectrum, F&& gain) {
    float* d = spectrum.data();
    if (!d) return;
    const int* n = spectrum.sizes();
    const int64_t* st = spectrum.strides();
    for (int z = 0; z < n[2]; ++z) {
        const float kz = N > 2 ? axisFrequency(z, n[2]) : 0.0f;
        for (int y = 0; y < n[1]; ++y) {
            const float ky = N > 1 ? axisFrequency(y, n[1]) : 0.0f;
            float* row = d + st[1] * y + st[2] * z;
            for (int x = 0; x < n[0]; ++x) {
                const float kx = axisFrequency(x, n[0]);
                row[x] *= gain(kx * kx + ky * ky + kz * kz);
            }
        }
    }
}

}  // namespace

template <int N>
void Spectrum<N>::filterLorentzian(float sigma) {
    const float q = 1.0f / (2.0f * static_cast<float>(PI) * sigma);
    const float s = q * q;
    filterBox(*this, [s](float k2) { return s / (k2 + s); });
}

template <int N>
void Spectrum<N>::filterRadial(const float table[257]) {
    filterBox(*this, [table](float k2) {
        const float t = std::sqrt(k2) / 0.5f * 256.0f;
        if (!(t < 256.0f)) return 0.0f;
        const int i = static_cast<int>(t);
        const float f = t - static_cast<float>(i);
        return table[i] + (table[i + 1] - table[i]) * f;
    });
}

const float* radialLowPassTable() {
    static const std::vector<float> table = [] {
        std::vector<float> t(257);
        for (int i = 0; i <= 256; ++i) {
            const double g = std::exp(-0.5 * (i / 48.0) * (i / 48.0));
            const double taper = 0.5 * (1.0 + std::cos(PI * i / 256.0));
            t[static_cast<size_t>(i)] = static_cast<float>(g * taper);
        }
        return t;
    }();
    return table.data();
}

template class Spectrum<3>;
template class CosSpectrum<3>;

}  // namespace vaporix
