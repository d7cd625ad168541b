// Reference data computed by reference.py with NumPy/SciPy at test time.
#pragma once

#include <gtest/gtest.h>

#include <complex>
#include <map>
#include <string>
#include <vector>

#include "../common/python_reference.h"

namespace lx::dsp::test {

// Data set `name`, computed once per process; ok() false when Python failed.
class Reference {
public:
    static const Reference& Get(const std::string& name) {
        static std::map<std::string, Reference> loaded;
        auto it = loaded.find(name);
        if (it == loaded.end()) it = loaded.emplace(name, Reference{lxtest::RunReference("dsp/reference.py", name + " {dir}/out.txt")}).first;
        return it->second;
    }
    bool ok() const { return !values.empty(); }
    bool has(const std::string& key) const { return values.count(key) != 0; }
    const std::vector<double>& operator[](const std::string& key) const {
        static const std::vector<double> none;
        auto it = values.find(key);
        if (it != values.end()) return it->second;
        ADD_FAILURE() << "no reference values for " << key;
        return none;
    }
    // Interleaved re, im pairs as complex values.
    template <typename T = float>
    std::vector<std::complex<T>> Complex(const std::string& key) const {
        const auto& v = (*this)[key];
        std::vector<std::complex<T>> c(v.size() / 2);
        for (size_t i = 0; i < c.size(); ++i) c[i] = {static_cast<T>(v[2 * i]), static_cast<T>(v[2 * i + 1])};
        return c;
    }
    lxtest::ReferenceValues values;
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
