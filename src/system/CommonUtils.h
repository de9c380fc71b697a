#pragma once
// Static helpers of the plugin core. Commands, system queries and string
// helpers are implemented in CommonUtils.cpp; media classification and path
// naming in CommonUtilsPaths.cpp.
#include <fcntl.h>

#include <boost/lexical_cast.hpp>
#include <set>
#include <string>
#include <vector>

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

    // Country code used when neither the cache file nor NVRAM gives one: "CN".
    static const std::string DEFAULTCOUNTRYCODE_;

    // Value of a UCI option named in the extended syntax
    // ("config.section.option"; the config part may be an absolute file
    // path). Empty when the file, section or option is missing.
    static std::string sUciGet(const std::string& path);
    // Firmware version, channel and device id from UCI; empty when unknown.
    static std::string sGetRomVersion();
    static std::string sGetRomChannel();
    static std::string sGetDeviceId();
    // Output of "nvram get SN"; empty when the command fails.
    static std::string sGetRomSN();
    // The router's country code: the cached code, else NVRAM on release
    // firmware, else DEFAULTCOUNTRYCODE_. Never empty.
    static std::string sGetCountryCode();
    // IPv4 address of the LAN interface from the network daemon, or "".
    static std::string sGetRouterIP();
    // Size and available bytes of the partition mounted at `mountPoint`
    // (from "df"); both 0 when it is not found.
    static void sGetPartitionSpaceInfo(const std::string& mountPoint, unsigned long long& total,
                                       unsigned long long& available);
    // True when stat succeeds and the path is not a directory.
    static bool sIsFile(const std::string& path);
    // Takes a non-waiting fcntl lock of `type` (F_RDLCK/F_WRLCK) on the whole
    // file. Returns 0, or -1 after closing `fd` when the lock is not granted.
    static int slockFileLock(struct flock& lock, short type, int fd, const std::string& path);
    // Releases the lock and closes `fd` in every case. Returns 0, or -1 when
    // the unlock failed.
    static int sUnlockFileLock(struct flock& lock, int fd, const std::string& path);
    // vasprintf into `*out` (null on failure). Returns its result.
    static int xasprintf(char** out, const char* format, ...) __attribute__((format(printf, 2, 3)));
    // Current Unix time in decimal.
    static std::string sGetNowTimeStamp();
    // Local time of `seconds` as "YYYY-MM-DDTHH:MM:SS". Not re-entrant.
    static std::string sConvertTimeFormat(long seconds);
    // True when the firmware version meets the required three-part
    // `version`; false when it is older or either version lacks three parts.
    static bool sCheckIsLowerVersionThanCurrentRom(std::string version);

    // Pieces of `text` split at any character of `separators`, runs merged, into a set.
    static void splitString(std::set<std::string>& out, const std::string& text, const std::string& separators);
    // Pieces of `text`, every empty piece kept.
    static std::vector<std::string> splitString(const std::string& text, const std::string& separators);
    // Pieces of `text`, runs of separators merged into one.
    static std::vector<std::string> splitStringTokenCompress(const std::string& text, const std::string& separators);
    // `text` as a T when the whole text converts; `fallback` otherwise.
    template <typename T, typename S>
    static T lexicalCast(const S& text, const T& fallback) {
        try {
            return boost::lexical_cast<T>(text);
        } catch (const boost::bad_lexical_cast&) {
            return fallback;
        }
    }
    // Removes leading blanks and collapses each other run of blanks into one, in place.
    static void sTrimAll(char* text);
    static std::string sToLower(const std::string& text);
    // Case-insensitive prefix and suffix tests; an empty prefix or suffix matches.
    static bool startWith(const std::string& text, const std::string& prefix);
    static bool endWith(const std::string& text, const std::string& suffix);

    // ---- Media classification and path naming ----------------------------

    // A free name for a file: `path` itself when nothing exists there, else
    // "name(1).ext", "name(2).ext", ... (see the implementation for the rule).
    static std::string sGetDuplicateFileName(const std::string& path);
};
