#pragma once
// Static helpers of the plugin core. Commands, system queries and string
// helpers are implemented in CommonUtils.cpp; media classification and path
// naming in CommonUtilsPaths.cpp.
#include <string>

class CommonUtils {
public:
    // ---- Commands, system queries, strings and versions ------------------

    // Runs `command` through the shell. Returns 0 on success, the command's
    // exit code on failure, -1 when the shell could not be run.
    static int sCallSystem(const std::string& command);
    // Runs `command` and collects what it prints, trimmed of line ends and
    // blanks at both ends. False only when the command could not be started.
    static bool sCallSystem(const std::string& command, std::string& output);
    // Like the first sCallSystem, through a pipe whose output is discarded.
    static int sCallPopenNoOutput(const std::string& command);
    // Exit code of `command` (or -1), with its trimmed output in `output`.
    static int sCallPopenWithOutput(const std::string& command, std::string& output);
    // True for the HTTP status codes of a successful transfer: 200 and 206.
    static bool sIsHttpCodeSucceed(int code);

    // Rewrites `key` in place into a valid libconfig setting name: "key_" in
    // front when it does not start with a letter or "*", and every character
    // other than letters, digits, "-", "_" and "*" replaced by "_".
    static void sConvertToValidLibconfigKey(std::string& key);

    // ---- Media classification and path naming ----------------------------

    // A free name for a file: `path` itself when nothing exists there, else
    // "name(1).ext", "name(2).ext", ... (see the implementation for the rule).
    static std::string sGetDuplicateFileName(const std::string& path);
};
