// Runs a NumPy/SciPy reference script on the Debian interpreter.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace lxtest {

using ReferenceValues = std::map<std::string, std::vector<double>>;

// Runs tests/<script> with `args`, in which {dir} names the run's folder;
// `inputs` (file name -> bytes) are written there first. The script writes
// its answer to {dir}/out.txt. Empty, and a failure, when it cannot run.
inline ReferenceValues RunReference(const std::string& script, std::string args,
                                    const std::map<std::string, std::string>& inputs = {}) {
    ReferenceValues values;
    char pattern[] = "/tmp/lx_ref_XXXXXX";
    const char* made = mkdtemp(pattern);
    if (!made) {
        ADD_FAILURE() << "no temporary folder for " << script;
        return values;
    }
    const std::string dir = made;
    for (const auto& [name, bytes] : inputs) std::ofstream(dir + "/" + name, std::ios::binary) << bytes;
    for (size_t at; (at = args.find("{dir}")) != std::string::npos;) args.replace(at, 5, dir);
    const std::string cmd = std::string(LX_TEST_PYTHON) + " " + LX_TEST_SOURCE_DIR + "/tests/" + script + " " + args;
    if (std::system(cmd.c_str()) != 0) {
        ADD_FAILURE() << "reference script failed: " << cmd;
    } else {
        std::ifstream in(dir + "/out.txt");
        for (std::string line; std::getline(in, line);) {
            std::istringstream fields(line);
            std::string key, token;
            fields >> key;
            auto& v = values[key];
            while (fields >> token) v.push_back(std::strtod(token.c_str(), nullptr)); // not >>: nan, inf
        }
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return values;
}

} // namespace lxtest
