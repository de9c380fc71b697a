#pragma once
// Golden files: exact texts (standard output, command lines, log lines) kept
// in tests/data/<name>.expected and compared with what a run produced.
//
// Variable parts are replaced before the comparison, so the files stay
// stable between runs and machines:
//   the test root (DATACENTER_ROOT) -> <ROOT>
//   the source and build trees      -> <SRC>, <BUILD>
//   "YYYY-MM-DDTHH:MM:SS"           -> <TIME>
//   "get now time stamp: N"         -> "get now time stamp: <NOW>"
//   the test's own substitutions    -> whatever Placeholders::add/addPattern name
//
// After a deliberate change of a text, run the tests with DC_UPDATE_GOLDEN=1:
// every compared file is rewritten with the new text (and the test passes);
// review the change with `git diff tests/data` before committing it.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/LogCapture.h"

namespace testsupport {

class Placeholders {
public:
    // Replaces every occurrence of `text` with `placeholder` (e.g. a port or token).
    Placeholders& add(const std::string& text, const std::string& placeholder);
    // Replaces every match of the ECMAScript `pattern` (e.g. "pid \\d+") with `placeholder`.
    Placeholders& addPattern(const std::string& pattern, const std::string& placeholder);
    // The root, tree and time substitutions, then the added ones (longest text first).
    std::string apply(const std::string& text) const;

private:
    std::vector<std::pair<std::string, std::string>> replacements_;
    std::vector<std::pair<std::string, std::string>> patterns_;
};

// Compares `actual` (after the placeholders) with tests/data/<name>.expected.
// On a mismatch the assertion fails with a line diff ("-" expected, "+" actual).
::testing::AssertionResult matchesGolden(const std::string& name, const std::string& actual,
                                         const Placeholders& placeholders = Placeholders());

// One line per entry, each ending in "\n".
std::string joinLines(const std::vector<std::string>& lines);

// Captured log lines as "<SEVERITY> text", one per line, optionally only those
// for which `keep` is true.
std::string logText(const LogCapture& capture, bool (*keep)(const std::string& line) = nullptr);

}  // namespace testsupport

// EXPECT_GOLDEN("status/enable-commands", text [, placeholders])
#define EXPECT_GOLDEN(name, ...) EXPECT_TRUE(::testsupport::matchesGolden(name, __VA_ARGS__))
