#include "system/CommonUtils.h"

#include <glog/logging.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstring>
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
    LOG(INFO) << "excuete cmd: " << command;
    output.clear();
    int status = 0;
    if (!datacenter::CommandRunner::sCurrent()->runPipe(command, output, status)) {
        LOG(ERROR) << "excute cmd fail: " << command;
        return false;
    }
    trimOutput(output);
    LOG(INFO) << "excuete cmd output: " << output;
    return true;
}

int CommonUtils::sCallPopenNoOutput(const std::string& command) {
    std::string discarded;
    return sCallPopenWithOutput(command, discarded);
}

int CommonUtils::sCallPopenWithOutput(const std::string& command, std::string& output) {
    LOG(INFO) << "excuete cmd: " << command;
    signal(SIGCHLD, SIG_DFL);
    output.clear();
    int status = 0;
    if (!datacenter::CommandRunner::sCurrent()->runPipe(command, output, status)) {
        LOG(ERROR) << "excute cmd fail: " << command;
        return -1;
    }
    trimOutput(output);
    LOG(INFO) << "excuete cmd output: " << output;
    if (status == -1) {
        LOG(ERROR) << "pclose cmd failed: " << command << ", error msg is: " << strerror(errno);
        return -1;
    }
    return reportStatus(command, status);
}

bool CommonUtils::sIsHttpCodeSucceed(int code) {
    return code == 200 || code == 206;
}
