#pragma once
// Static helpers of the plugin core. Commands, system queries and string
// helpers are implemented in CommonUtils.cpp; media classification and path
// naming in CommonUtilsPaths.cpp.
#include <string>

class CommonUtils {
public:
    // ---- Commands, system queries, strings and versions ------------------

    // Rewrites `key` in place into a valid libconfig setting name: "key_" in
    // front when it does not start with a letter or "*", and every character
    // other than letters, digits, "-", "_" and "*" replaced by "_".
    static void sConvertToValidLibconfigKey(std::string& key);

    // ---- Media classification and path naming ----------------------------

    // A free name for a file: `path` itself when nothing exists there, else
    // "name(1).ext", "name(2).ext", ... (see the implementation for the rule).
    static std::string sGetDuplicateFileName(const std::string& path);
};
