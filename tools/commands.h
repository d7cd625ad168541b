// The subcommands of lx530. Each prints its report to stdout and returns the
// exit code; a failure leaves through lx::cli::Failure.
#pragma once

#include <cstdint>
#include <optional>

namespace lx::cli {

int RunList(bool json);
int RunInfo(std::optional<int32_t> serial, bool json);

} // namespace lx::cli
