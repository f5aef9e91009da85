#include "tools/easctl/node/Kernels.h"

#include <cmath>
#include <complex>
#include <cstdint>
#include <vector>

namespace easctl {
namespace {

/// The compiler must take the data behind `pointer` for read and written here: no loop before it
/// can be left out.
inline void observe(void* pointer) {
    asm volatile("" : : "r"(pointer) : "memory");
}

inline std::uint64_t next_random(std::uint64_t& state) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

/// Integer and floating-point arithmetic that never leaves the registers.
class Registers final : public KernelWork {
  public:
    void step() override {
        std::array<double, 8> x = floats_;
        std::array<std::uint64_t, 4> n = integers_;
        for (int i = 0; i < 400000; ++i) {
            for (double& value : x)
                value = value * 0.999999 + 1e-6;
            for (std::uint64_t& value : n)
                value = value * 6364136223846793005U + 1442695040888963407U;
        }
        floats_ = x;
        integers_ = n;
        observe(this);
    }

  private:
    std::array<double, 8> floats_{0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8};
    std::array<std::uint64_t, 4> integers_{1, 2, 3, 4};
};

/// Product of two small matrices that lie in the first-level cache.
class Matrix final : public KernelWork {
  public:
    void step() override {
        for (int repeat = 0; repeat < 40; ++repeat) {
            multiply();
            observe(this);
        }
    }

  private:
    static constexpr std::size_t kOrder = 36;  // three matrices: 30 KiB
    using Square = std::array<double, kOrder * kOrder>;

    void multiply() {
        for (std::size_t i = 0; i < kOrder; ++i) {
            for (std::size_t k = 0; k < kOrder; ++k) {
                const double factor = a_[i * kOrder + k];
                for (std::size_t j = 0; j < kOrder; ++j)
                    c_[i * kOrder + j] = 0.5 * c_[i * kOrder + j] + factor * b_[k * kOrder + j];
            }
        }
    }

    static Square filled(double value) {
        Square square{};
        square.fill(value);
        return square;
    }
    Square a_ = filled(0.01), b_ = filled(0.02), c_ = filled(0);
};

/// Branches that no predictor learns.
class Branches final : public KernelWork {
  public:
    void step() override {
        std::uint64_t seed = seed_;
        for (int i = 0; i < 300000; ++i) {
            const std::uint64_t drawn = next_random(seed);
            // Calls behind pointers: what each branch does cannot be made branchless.
            if ((drawn & 1) != 0)
                kActions[drawn >> 1 & 3](counts_);
            if ((drawn & 8) != 0)
                counts_[drawn >> 4 & 7] += drawn;
        }
        seed_ = seed;
        observe(this);
    }

  private:
    using Counts = std::array<std::uint64_t, 8>;
    static constexpr std::array<void (*)(Counts&), 4> kActions = {
        [](Counts& counts) { ++counts[0]; }, [](Counts& counts) { counts[1] ^= counts[0]; },
        [](Counts& counts) { counts[2] += counts[1]; }, [](Counts& counts) { counts[3] -= 7; }};
    std::uint64_t seed_ = 88172645463325252U;
    Counts counts_{};
};

/// Butterflies of a Fourier transform over 16 MiB: every pass goes through all of it, with some
/// arithmetic on each element.
class Fourier final : public KernelWork {
  public:
    Fourier() : data_(kLength, {1.0, 0.5}), roots_(kRoots) {
        for (std::size_t i = 0; i < kRoots; ++i)
            roots_[i] = std::polar(1.0, 2 * M_PI * static_cast<double>(i) / kRoots);
    }

    void step() override {
        const std::size_t half = std::size_t{1} << (kSmallest + pass_ % kPasses);
        for (std::size_t slice = 0; slice < kSlice; ++slice) {
            butterflies(half);
            base_ += 2 * half;
            if (base_ < kLength)
                continue;
            base_ = 0;
            ++pass_;
            break;
        }
        observe(data_.data());
    }

  private:
    static constexpr std::size_t kLength = std::size_t{1} << 20;
    static constexpr std::size_t kRoots = 1024;
    static constexpr std::size_t kSmallest = 7, kPasses = 4;  // half blocks of 128 to 1024
    static constexpr std::size_t kSlice = 512;
    static constexpr double kScale = 0.70710678118654752;  // the data neither grows nor vanishes
    using Element = std::complex<double>;

    void butterflies(std::size_t half) {
        const std::size_t stride = kRoots / half;
        for (std::size_t i = 0; i < half; ++i) {
            Element& low = data_[base_ + i];
            Element& high = data_[base_ + half + i];
            const Element& root = roots_[i * stride];
            // Written out: the library's product tests for infinities.
            const Element turned{high.real() * root.real() - high.imag() * root.imag(),
                                 high.real() * root.imag() + high.imag() * root.real()};
            high = kScale * (low - turned);
            low = kScale * (low + turned);
        }
    }

    std::vector<Element> data_;
    std::vector<Element> roots_;
    std::size_t base_ = 0;
    std::size_t pass_ = 0;
};

/// Five-point relaxation of a grid of 16 MiB into another: neighbours come from the cache, each
/// row once from memory.
class Stencil final : public KernelWork {
  public:
    Stencil() : from_(kRows * kColumns, 1.0), to_(kRows * kColumns, 0.0) {}

    void step() override {
        for (int i = 0; i < 64; ++i) {
            relax_row(row_);
            if (++row_ < kRows - 1)
                continue;
            row_ = 1;
            from_.swap(to_);
        }
        observe(to_.data());
    }

  private:
    static constexpr std::size_t kRows = 1024;
    static constexpr std::size_t kColumns = 2048;

    void relax_row(std::size_t row) {
        const double* in = from_.data() + row * kColumns;
        double* out = to_.data() + row * kColumns;
        for (std::size_t i = 1; i < kColumns - 1; ++i) {
            const double around = in[i - 1] + in[i + 1] + in[i - kColumns] + in[i + kColumns];
            out[i] = 0.2 * (in[i] + around);
        }
    }

    std::vector<double> from_, to_;
    std::size_t row_ = 1;
};

/// Product of a sparse matrix and a vector of 32 MiB: reads at random places, several under way at
/// a time.
class Sparse final : public KernelWork {
  public:
    Sparse() : vector_(kLength, 1.0), sums_(kRows, 0.0) {}

    void step() override {
        for (double& sum : sums_) {
            double row = 0;
            for (int i = 0; i < 16; ++i)
                row += 0.25 * vector_[next_random(seed_) % kLength];
            sum += row;
        }
        observe(sums_.data());
    }

  private:
    static constexpr std::size_t kLength = std::size_t{4} << 20;
    static constexpr std::size_t kRows = 2048;
    std::uint64_t seed_ = 2463534242U;
    std::vector<double> vector_, sums_;
};

/// Triad over three arrays of 16 MiB: nothing but memory bandwidth.
class Stream final : public KernelWork {
  public:
    Stream() : a_(kLength, 0.0), b_(kLength, 1.0), c_(kLength, 2.0) {}

    void step() override {
        double* a = a_.data() + at_;
        const double* b = b_.data() + at_;
        const double* c = c_.data() + at_;
        for (std::size_t i = 0; i < kSlice; ++i)
            a[i] = b[i] + 3.0 * c[i];
        at_ = (at_ + kSlice) % kLength;
        observe(a);
    }

  private:
    static constexpr std::size_t kLength = kLargestKernelBytes / 3 / sizeof(double);
    static constexpr std::size_t kSlice = std::size_t{1} << 17;
    std::vector<double> a_, b_, c_;
    std::size_t at_ = 0;
};

template <typename Work>
std::unique_ptr<KernelWork> make() {
    return std::make_unique<Work>();
}

}  // namespace

const std::array<Kernel, EnergyUtil::COEFNUM>& kernels() {
    static constexpr std::array<Kernel, EnergyUtil::COEFNUM> kKernels = {{
        {"registers", "arithmetic in registers", make<Registers>},
        {"matrix", "small matrix product in the first-level cache", make<Matrix>},
        {"branches", "branches that cannot be predicted", make<Branches>},
        {"fourier", "arithmetic on data streamed from memory", make<Fourier>},
        {"stencil", "neighbours from the cache, rows from memory", make<Stencil>},
        {"sparse", "memory latency: reads at random places", make<Sparse>},
        {"stream", "memory bandwidth", make<Stream>},
    }};
    return kKernels;
}

}  // namespace easctl
