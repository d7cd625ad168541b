// Reference data for the signal-processing tests, computed by reference.py with
// NumPy/SciPy at test time (one run per data set and test process).
#pragma once

#include <gtest/gtest.h>

#include <complex>
#include <map>
#include <string>
#include <vector>

#include "../common/python_reference.h"

namespace lx::dsp::test {

class Reference {
public:
    // Loads data set `name` ("windows", "fft", "fir", "cheby"); fails the test
    // (fatal in the caller via ASSERT_TRUE(ref.ok())) when Python is not usable.
    static const Reference& Get(const std::string& name) {
        static std::map<std::string, Reference> loaded;
        auto it = loaded.find(name);
        if (it == loaded.end()) it = loaded.emplace(name, Load(name)).first;
        return it->second;
    }

    bool ok() const { return !values_.empty(); }
    bool has(const std::string& key) const { return values_.count(key) != 0; }

    const std::vector<double>& operator[](const std::string& key) const {
        static const std::vector<double> none;
        auto it = values_.find(key);
        if (it == values_.end()) {
            ADD_FAILURE() << "no reference values for " << key;
            return none;
        }
        return it->second;
    }

    // Interleaved re, im pairs as complex values.
    template <typename T = float>
    std::vector<std::complex<T>> Complex(const std::string& key) const {
        const auto& v = (*this)[key];
        std::vector<std::complex<T>> c(v.size() / 2);
        for (size_t i = 0; i < c.size(); ++i) c[i] = {static_cast<T>(v[2 * i]), static_cast<T>(v[2 * i + 1])};
        return c;
    }

private:
    static Reference Load(const std::string& name) {
        Reference r;
        r.values_ = lxtest::RunReference("dsp/reference.py", name + " {dir}/out.txt");
        return r;
    }

    std::map<std::string, std::vector<double>> values_;
};

// Largest |a - b| over two complex sequences, relative to the largest |b|.
template <typename A, typename B>
double RelativeError(const std::vector<A>& a, const std::vector<B>& b) {
    double err = 0.0, scale = 0.0;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        const std::complex<double> x(a[i].real(), a[i].imag()), y(b[i].real(), b[i].imag());
        err = std::max(err, std::abs(x - y));
        scale = std::max(scale, std::abs(y));
    }
    return a.size() == b.size() ? err / scale : 1e300;
}

} // namespace lx::dsp::test
