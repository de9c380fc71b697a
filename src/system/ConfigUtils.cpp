#include "system/ConfigUtils.h"

#include <iostream>
#include <libconfig.h++>

#include "system/LibconfigFile.h"

ConfigUtils::ConfigUtils(const std::string& path) : path_(path) {}

std::string ConfigUtils::getConfigFromKey(const std::string& key) {
    boost::mutex::scoped_lock lock(mutex_);
    try {
        libconfig::Config config;
        datacenter::LibconfigFile::sReadPlain(config, path_);
        std::string value;
        config.getRoot().lookupValue(key, value);
        return value;
    } catch (const libconfig::ParseException& e) {
        std::cout << "ParseException" << e.getError() << std::endl;
    } catch (const std::exception&) {
        // A missing or unreadable file reads as no value.
    }
    return std::string();
}
