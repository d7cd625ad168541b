// Reference data for the signal-processing tests, computed by reference.py with
// NumPy/SciPy at test time (one run per data set and test process).
#pragma once

#include <gtest/gtest.h>

#include <complex>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

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
        char pattern[] = "/tmp/lx_dsp_ref_XXXXXX";
        const char* dir = mkdtemp(pattern);
        if (!dir) return r;
        const std::string file = std::string(dir) + "/" + name + ".txt";
        const std::string cmd = std::string(LX_TEST_PYTHON) + " " + LX_TEST_SOURCE_DIR + "/tests/dsp/reference.py " +
                                name + " " + file;
        if (std::system(cmd.c_str()) == 0) {
            std::ifstream in(file);
            std::string line;
            while (std::getline(in, line)) {
                std::istringstream fields(line);
                std::string key;
                fields >> key;
                std::vector<double>& v = r.values_[key];
                // strtod, not >>: the data holds nan and inf.
                std::string tok;
                while (fields >> tok) v.push_back(std::strtod(tok.c_str(), nullptr));
            }
        }
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
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
