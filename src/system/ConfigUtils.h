#pragma once
// A small reader of one libconfig file, independent of the configuration
// singleton and its lock.
#include <boost/thread/mutex.hpp>
#include <string>

class ConfigUtils {
public:
    explicit ConfigUtils(const std::string& path);

    // Value of `key` in the file, read afresh; "" when missing or unreadable.
    std::string getConfigFromKey(const std::string& key);

private:
    boost::mutex mutex_;
    std::string path_;
};
