#include "system/CommonUtils.h"

#include <glog/logging.h>
#include <sys/wait.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

#include "system/CommandRunner.h"

namespace {

bool isAsciiLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isAsciiDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

void CommonUtils::sConvertToValidLibconfigKey(std::string& key) {
    if (key.empty()) {
        return;
    }
    if (!isAsciiLetter(key[0]) && key[0] != '*') {
        key = "key_" + key;
    }
    for (char& c : key) {
        if (!isAsciiLetter(c) && !isAsciiDigit(c) && c != '-' && c != '_' && c != '*') {
            c = '_';
        }
    }
}

namespace {

std::string hexStatus(int status) {
    std::ostringstream text;
    text << std::hex << status;
    return text.str();
}

void trimOutput(std::string& output) {
    const char* const blanks = "\r\n ";
    const std::string::size_type first = output.find_first_not_of(blanks);
    if (first == std::string::npos) {
        output.clear();
        return;
    }
    output = output.substr(first, output.find_last_not_of(blanks) - first + 1);
}

// Turns a wait status into the helpers' result, logging as the router's tools expect.
int reportStatus(const std::string& command, int status) {
    LOG(INFO) << "exit status value = [0x" << hexStatus(status) << "]";
    const int code = (status >> 8) & 0xff;
    if (WIFSIGNALED(status)) {
        return code;
    }
    if (code == 0) {
        LOG(INFO) << "execute system command :" << command << " success,and return code: 0";
        return 0;
    }
    LOG(ERROR) << "execute system command :" << command << " fail,and return code: " << code
               << ",exit status value = [0x" << hexStatus(status) << "]"
               << " and error msg is:" << strerror(errno);
    return code;
}

// Runs `command` through a pipe after the helpers' common opening line; false
// (logged) when it could not be started. `status` is the pclose() wait status.
// The status-reporting forms restore the default SIGCHLD handling first, so
// that the wait status is not lost to a handler that reaps children.
bool runThroughPipe(const std::string& command, std::string& output, int& status, bool defaultChildSignal) {
    LOG(INFO) << "excuete cmd: " << command;
    if (defaultChildSignal) {
        signal(SIGCHLD, SIG_DFL);
    }
    output.clear();
    if (!datacenter::CommandRunner::sCurrent()->runPipe(command, output, status)) {
        LOG(ERROR) << "excute cmd fail: " << command;
        return false;
    }
    return true;
}

// False (logged) when closing the pipe failed.
bool pipeClosed(const std::string& command, int status) {
    if (status == -1) {
        LOG(ERROR) << "pclose cmd failed: " << command << ", error msg is: " << strerror(errno);
        return false;
    }
    return true;
}

}  // namespace

int CommonUtils::sCallSystem(const std::string& command) {
    LOG(WARNING) << "begin execute system command : " << command;
    signal(SIGCHLD, SIG_DFL);
    const int status = datacenter::CommandRunner::sCurrent()->runShell(command);
    if (status == -1) {
        LOG(ERROR) << "execute system command :" << command << " fail,system error and return code:" << -1
                   << " and error number is:" << strerror(errno);
        return -1;
    }
    return reportStatus(command, status);
}

bool CommonUtils::sCallSystem(const std::string& command, std::string& output) {
    int status = 0;
    if (!runThroughPipe(command, output, status, false)) {
        return false;
    }
    trimOutput(output);
    LOG(INFO) << "excuete cmd output: " << output;
    return true;
}

int CommonUtils::sCallPopenNoOutput(const std::string& command) {
    // The output is drained rather than the pipe closed unread, so that a
    // command which prints is not killed by SIGPIPE half-way; it is not logged.
    std::string discarded;
    int status = 0;
    if (!runThroughPipe(command, discarded, status, true) || !pipeClosed(command, status)) {
        return -1;
    }
    return reportStatus(command, status);
}

int CommonUtils::sCallPopenWithOutput(const std::string& command, std::string& output) {
    int status = 0;
    if (!runThroughPipe(command, output, status, true)) {
        return -1;
    }
    trimOutput(output);
    LOG(INFO) << "excuete cmd output: " << output;
    if (!pipeClosed(command, status)) {
        return -1;
    }
    const int code = (status >> 8) & 0xff;
    if (code == 0) {
        LOG(INFO) << "execute system command :" << command << " success,and return code: 0";
        return 0;
    }
    LOG(ERROR) << "execute system command :" << command << " fail,and return code: " << code;
    return code;
}

bool CommonUtils::sIsHttpCodeSucceed(int code) {
    return code == 200 || code == 206;
}

int CommonUtils::xasprintf(char** out, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = vasprintf(out, format, arguments);
    va_end(arguments);
    if (result < 0) {
        LOG(ERROR) << "xasprintf: allocation failed";
        *out = nullptr;
    }
    return result;
}

std::string CommonUtils::sGetNowTimeStamp() {
    const long long now = static_cast<long long>(time(nullptr));
    LOG(INFO) << "get now time stamp: " << now;
    return std::to_string(now);
}

std::string CommonUtils::sConvertTimeFormat(long seconds) {
    static char text[64];
    const time_t when = static_cast<time_t>(seconds);
    struct tm local;
    localtime_r(&when, &local);
    snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

bool CommonUtils::sCheckIsLowerVersionThanCurrentRom(std::string version) {
    const std::string rom = sGetRomVersion();
    LOG(INFO) << "rom version is: " << rom << "  input version is: " << version;
    const std::vector<std::string> required = splitString(version, ".");
    const std::vector<std::string> current = splitString(rom, ".");
    if (required.size() != 3 || current.size() != 3) {
        return false;
    }
    for (size_t i = 0; i < 3; ++i) {
        const int wanted = atoi(required[i].c_str());
        const int have = atoi(current[i].c_str());
        if (wanted != have) {
            return wanted < have;
        }
    }
    return true;
}

void CommonUtils::splitString(std::set<std::string>& out, const std::string& text, const std::string& separators) {
    const std::vector<std::string> pieces = splitStringTokenCompress(text, separators);
    out.insert(pieces.begin(), pieces.end());
}

std::vector<std::string> CommonUtils::splitString(const std::string& text, const std::string& separators) {
    std::vector<std::string> pieces;
    boost::algorithm::split(pieces, text, boost::algorithm::is_any_of(separators),
                            boost::algorithm::token_compress_off);
    return pieces;
}

std::vector<std::string> CommonUtils::splitStringTokenCompress(const std::string& text, const std::string& separators) {
    std::vector<std::string> pieces;
    boost::algorithm::split(pieces, text, boost::algorithm::is_any_of(separators), boost::algorithm::token_compress_on);
    return pieces;
}

void CommonUtils::sTrimAll(char* text) {
    if (!text) {
        return;
    }
    char* write = text;
    const char* read = text;
    while (*read == ' ') {
        ++read;
    }
    bool lastWasBlank = false;
    for (; *read; ++read) {
        if (*read == ' ' && lastWasBlank) {
            continue;
        }
        lastWasBlank = *read == ' ';
        *write++ = *read;
    }
    *write = '\0';
}

std::string CommonUtils::sToLower(const std::string& text) {
    std::string lower(text);
    for (char& c : lower) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return lower;
}

bool CommonUtils::startWith(const std::string& text, const std::string& prefix) {
    return boost::algorithm::istarts_with(text, prefix);
}

bool CommonUtils::endWith(const std::string& text, const std::string& suffix) {
    return boost::algorithm::iends_with(text, suffix);
}
