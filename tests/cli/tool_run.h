// Running the lx530 tool as a user does: a process, its exit code and output.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace clitest {

namespace fs = std::filesystem;

inline std::string Quote(const fs::path& p) {
    std::string q = "'";
    for (char c : p.string()) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

inline std::string Slurp(const fs::path& p) {
    std::ifstream in(p);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// A folder of its own, removed with everything in it.
struct TempDir {
    TempDir() {
        std::string tmpl = (fs::temp_directory_path() / "lx530-test-XXXXXX").string();
        if (mkdtemp(tmpl.data())) path = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    fs::path path;
};

struct Result { int exitCode = -1; std::string out, err; };

// Runs a shell command with its output into files in `dir`.
inline Result RunCommand(const fs::path& dir, const std::string& cmd) {
    static int runs = 0;
    const std::string n = std::to_string(runs++);
    const fs::path out = dir / ("out" + n), err = dir / ("err" + n);
    const int status = std::system((cmd + " >" + Quote(out) + " 2>" + Quote(err)).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Slurp(out), Slurp(err)};
}

// Runs lx530 in `dir` ("{dir}" in an argument stands for it), with a cache
// of its own: a record cached by one run would serve the next, whatever its scene.
inline Result RunTool(const fs::path& dir, std::vector<std::string> args) {
    static int runs = 0;
    std::string cmd = "XDG_CACHE_HOME=" + Quote(dir / ("cache" + std::to_string(runs++))) + " " + Quote(LX530_PATH);
    for (auto& a : args) {
        for (size_t at; (at = a.find("{dir}")) != std::string::npos;) a.replace(at, 5, dir.string());
        (cmd += ' ') += Quote(a); // not " " + Quote(a): a GCC 12 -O3 -Wrestrict false positive
    }
    return RunCommand(dir, cmd);
}

// Runs one of the tests' Python scripts on the Debian interpreter.
inline Result RunPython(const fs::path& dir, const std::string& script, const std::string& args) {
    return RunCommand(dir, std::string(LX_TEST_PYTHON) + " " + LX_TEST_SOURCE_DIR + "/" + script + " " + args);
}

} // namespace clitest
