#include "support/Golden.h"

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

#include "support/TestSupport.h"

namespace testsupport {
namespace {

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    if (from.empty()) {
        return;
    }
    for (std::string::size_type at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        lines.push_back(line);
    }
    return lines;
}

bool updating() {
    const char* update = std::getenv("DC_UPDATE_GOLDEN");
    return update && std::string(update) == "1";
}

}  // namespace

Placeholders& Placeholders::add(const std::string& text, const std::string& placeholder) {
    replacements_.emplace_back(text, placeholder);
    return *this;
}

Placeholders& Placeholders::addPattern(const std::string& pattern, const std::string& placeholder) {
    patterns_.emplace_back(pattern, placeholder);
    return *this;
}

std::string Placeholders::apply(const std::string& text) const {
    std::vector<std::pair<std::string, std::string>> all = replacements_;
    all.emplace_back(root(), "<ROOT>");
    all.emplace_back(buildDir(), "<BUILD>");
    all.emplace_back(sourceDir(), "<SRC>");
    // Longest first, so that a path inside another is not cut in half.
    std::stable_sort(all.begin(), all.end(),
                     [](const auto& a, const auto& b) { return a.first.size() > b.first.size(); });
    std::string result = text;
    for (const auto& replacement : all) {
        replaceAll(result, replacement.first, replacement.second);
    }
    static const std::regex time(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2})");
    static const std::regex now(R"(get now time stamp: -?\d+)");
    result = std::regex_replace(result, time, "<TIME>");
    result = std::regex_replace(result, now, "get now time stamp: <NOW>");
    for (const auto& pattern : patterns_) {
        result = std::regex_replace(result, std::regex(pattern.first), pattern.second);
    }
    return result;
}

::testing::AssertionResult matchesGolden(const std::string& name, const std::string& actual,
                                         const Placeholders& placeholders) {
    const std::string path = sourceDir() + "/tests/data/" + name + ".expected";
    const std::string produced = placeholders.apply(actual);
    if (updating()) {
        boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary | std::ios::trunc) << produced;
        return ::testing::AssertionSuccess() << "rewrote " << path;
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return ::testing::AssertionFailure()
               << "no golden file " << path << " (run with DC_UPDATE_GOLDEN=1 to create it); produced:\n"
               << produced;
    }
    const std::string expected((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (expected == produced) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "differs from tests/data/" << name << ".expected (- expected, + actual)"
           << (expected.size() && expected.back() != '\n' ? " [expected lacks final newline]" : "") << ":\n"
           << ::testing::internal::edit_distance::CreateUnifiedDiff(splitLines(expected), splitLines(produced))
           << "Rerun with DC_UPDATE_GOLDEN=1 if the change is deliberate.";
}

std::string joinLines(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

std::string logText(const LogCapture& capture, bool (*keep)(const std::string& line)) {
    std::string text;
    for (const LogCapture::Line& line : capture.records()) {
        if (!keep || keep(line.text)) {
            text += std::string(google::GetLogSeverityName(line.severity)) + " " + line.text + "\n";
        }
    }
    return text;
}

}  // namespace testsupport
