// The whole of lx530 behind main(), so that the parsing can be driven
// without a process (the command-line fuzz target).
#pragma once

namespace lx::cli {

// Parses and checks the command line, then runs the subcommand; returns the
// exit code. With parseOnly it returns after the checks that need neither an
// analyzer nor a file: kExitOk for a command line that would run.
int Main(int argc, const char* const* argv, bool parseOnly = false);

} // namespace lx::cli
