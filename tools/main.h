// The whole of lx530 behind main(), so that the parsing can be driven
// without a process (the command-line fuzz target).
#pragma once

#include <memory>

namespace lx::cli {

// Parses and checks the command line, then runs the subcommand; returns the
// exit code.
int Main(int argc, const char* const* argv);

// The parser alone, built once and reused: Check parses and checks a command
// line as Main does before it needs an analyzer or a file, and returns the
// exit code of a refused one (or of help and version), kExitOk for one that
// would run. Building the parser costs far more than a parse.
class CommandLine {
public:
    CommandLine();
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;
    int Check(int argc, const char* const* argv);

private:
    struct Parts;
    std::unique_ptr<Parts> p_;
    friend int Main(int argc, const char* const* argv);
};

} // namespace lx::cli
