#pragma once
// Static helpers of the plugin core. Commands, system queries and string
// helpers are implemented in CommonUtils.cpp; media classification and path
// naming in CommonUtilsPaths.cpp and CommonUtilsMedia.cpp.
#include <fcntl.h>
#include <sys/stat.h>

#include <boost/lexical_cast.hpp>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <set>
#include <string>
#include <vector>

class CommonUtils {
public:
    // ---- Commands, system queries, strings and versions ------------------

    // Runs `command` through the shell. Returns 0 on success, the command's
    // exit code on failure, -1 when the shell could not be run. The result is
    // the second byte of the wait status, so a command killed by a signal
    // gives 0 and reads as success: callers that must tell a crash from a
    // clean exit check their own outcome (a file written, a process found).
    static int sCallSystem(const std::string& command);
    // Runs `command` and collects what it prints, trimmed of line ends and
    // blanks at both ends. False only when the command could not be started.
    static bool sCallSystem(const std::string& command, std::string& output);
    // Like the first sCallSystem, through a pipe whose output is read to its
    // end and discarded; -1 when the pipe could not be opened or closed. A
    // command killed by a signal reads as success (0), as above.
    static int sCallPopenNoOutput(const std::string& command);
    // Exit code of `command` (or -1 when the pipe could not be opened or
    // closed), with its trimmed output in `output`. A command killed by a
    // signal reads as exit code 0, as above.
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
    // Suffix tests ignore letter case and look at the end of a name or path.

    // True for common picture suffixes and every camera raw suffix.
    static bool sIsImage(const std::string& name);
    // True for camera raw picture suffixes (.nef, .cr2, .dng, .tiff, ...).
    static bool sIsCameraRawImage(const std::string& name);
    static bool sIsAudio(const std::string& name);
    static bool sIsVideo(const std::string& name);
    static bool sIsDocument(const std::string& name);
    // True when the extension (dot included, any case) is .jpg, .jpeg, .png, .bmp or .gif.
    static bool sIsSupportedImage(const std::string& extension);
    // True when the file name (without directory) looks like a video recorded
    // by a camera or phone; false for other names and when a pattern fails to compile.
    static bool sIsAutodyneVideo(std::string name);
    // True for a ".td" or ".cfg" file inside the download folder.
    static bool sIsDownloadTmpFile(const std::string& path);
    // True when the path ends in the name of a folder the router keeps for itself.
    static bool isSystemDirPath(const std::string& path);
    // True for hidden, cache and recycle-bin folder names.
    static bool isFilterDirName(const std::string& name);
    // True when the path lies below one of the folders that indexing ignores.
    static bool isFilterDirPath(const std::string& path);
    // True when `name` is one of the top folders of a plugin tree whose owner is left alone.
    static bool sIsInPluginChownFilterList(const std::string& name);

    // `text` without one layer of surrounding single or double quotes.
    static std::string sRemoveMarks(const std::string& text);
    // True (and logged) when `text` holds a character that names may not contain.
    static bool sIsContainInvalidChar(const std::string& text);
    // `path` with a backslash before each blank, "*", "?", "(" and ")", for use in a shell command.
    static std::string sGetEscapedPath(const std::string& path);
    // `path` without one trailing "/"; paths shorter than two characters are returned unchanged.
    static std::string sUnifyPathStyle(const std::string& path);
    // `path` with a trailing "/"; paths shorter than two characters are returned unchanged.
    static std::string sCompleteDirPath(const std::string& path);
    // Resolves "." and ".." parts of `path` into `out`, keeping a leading and a
    // trailing "/". False when the path climbs above its start or has a part beginning with "...".
    static bool sGetAbsolutePath(const std::string& path, std::string& out);
    // `text` without its trailing `suffix` characters; a text of one character is kept.
    static std::string sRemoveSuffix(const std::string& text, char suffix);

    // A free name for a file: `path` itself when nothing exists there, else
    // "name(1).ext", "name(2).ext", ... (see the implementation for the rule).
    static std::string sGetDuplicateFileName(const std::string& path);
    // A free name for a copy of a file or folder: `path` itself when nothing
    // exists there, else "name-副本.ext", "name-副本2.ext", ...; "" for "".
    static std::string sGetDuplicatePath(const std::string& path);

    // The stat record of `path`; its fields are unspecified when stat fails.
    static struct stat64 sGetFileStat(const std::string& path);
    // Modification time in seconds, 0 when stat fails.
    static time_t sGetFileModifyTime(const std::string& path);
    // Sets access and modification time to `seconds`.
    static void sSetFileModifyTime(const std::string& path, time_t seconds);
    // Size in bytes, 0 when stat fails.
    static int64_t sGetFileSize(const std::string& path);
    // False for the empty path, "/" and the devices and mount points of the
    // primary disk; true for anything else.
    static bool sIsCanUmountDevice(const std::string& path);

    // Writes the privacy statistics point "stat_points_privacy name=value".
    static void statPrivacy(const std::string& name, std::string value);
    // Adds `mac` to the privacy white list (hasAccess) or removes every line
    // holding it. Does nothing when the white list does not exist.
    static void sAuthAccessPrivacyData(const std::string& mac, bool hasAccess);
    // True when the device named by the MD5 of its lower-case MAC may reach
    // the privacy data according to the MAC filter ("pridisk"). False for "".
    static bool sIsCanAccessPrivacyData(const std::string& hashedMac);
    // Compares the MD5 (hex) of the lower-cased `configuredMac` with `hashedMac`,
    // ignoring case. Returns 0 when they are equal.
    static int sMacCompare(const char* configuredMac, const char* hashedMac, size_t length);
};

// ---- MAC filter look-ups (part of the media and path section) -------------

// Compares a MAC from the filter file with the requested one over `length` characters; 0 = equal.
typedef int (*MacCompareFunction)(const char* configuredMac, const char* requestedMac, size_t length);
// 1 when the device section of "/etc/config/macfilter" whose MAC matches
// `mac` (through `compare`) sets `attribute` to a value beginning with
// "yes", 0 when it sets another value. Without such a section (or file) the
// answer is 1 for attributes beginning with "lan" and 0 for others.
int find_mac_attribute_from_macfilter_ex(const std::string& mac, const std::string& attribute,
                                         MacCompareFunction compare);
// The same with MACs compared without regard to case.
int find_mac_attribute_from_macfilter(const std::string& mac, const std::string& attribute);
// Asks "/usr/sbin/sysapi macfilter get" for the device; true when its answer
// holds attribute + "=yes". False when the command fails or cannot be built.
bool find_mac_attribute_from_macfilter_command(const std::string& mac, const std::string& attribute);
