// The lx530 command line: any arguments at all (the input split at NUL
// bytes), parsed and checked as the tool does before it touches an analyzer
// or a file. Nothing may crash, and an exit code is one of the three. Run
// with -close_fd_mask=3 (as ./dev fuzz does): help and usage text would
// drown the fuzzer's own output. One parser serves every input, as the
// fuzzer's speed needs: each parse starts from the defaults again.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli_support.h"
#include "main.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> args{"lx530"};
    std::string arg;
    for (size_t i = 0; i < size && args.size() < 64; ++i) {
        if (data[i] == 0) {
            args.push_back(arg);
            arg.clear();
        } else {
            arg += static_cast<char>(data[i]);
        }
    }
    if (!arg.empty() && args.size() < 64) args.push_back(arg);
    std::vector<const char*> argv;
    for (const auto& a : args) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    static lx::cli::CommandLine commandLine;
    const int code = commandLine.Check(static_cast<int>(args.size()), argv.data());
    if (code != lx::cli::kExitOk && code != lx::cli::kExitFailure && code != lx::cli::kExitUsage) std::abort();
    return 0;
}
