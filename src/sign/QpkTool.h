#pragma once
// The `qpk` developer tool: pack a plugin tree, sign, verify and inspect packages.
#include <iosfwd>

namespace packagesign {

// Runs one `qpk` command line. Results go to `out`, messages to `err`.
// Returns the exit status: 0 success, 1 failure, 2 bad usage.
int qpkMain(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace packagesign
