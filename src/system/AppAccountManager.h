#pragma once
// Asks the maker's plugin service whether an app id is a real plugin and
// whether a plugin is offered in a country. Confirmed ids are remembered in
// the global configuration; installed plugins count as confirmed.
#include <string>

class IAppAccountManager {
public:
    virtual ~IAppAccountManager() = default;
    virtual bool IsValidAppId(const std::string& appId) = 0;
    virtual bool isSupportedCountryCode(const std::string& appId, const std::string& countryCode,
                                        const std::string& appVersion) = 0;
};

class AppAccountManager : public IAppAccountManager {
public:
    // True for an installed plugin, an id confirmed before, or one the service confirms now.
    bool IsValidAppId(const std::string& appId) override;
    // True when the service lists `countryCode` for this plugin version; false on any failure.
    bool isSupportedCountryCode(const std::string& appId, const std::string& countryCode,
                                const std::string& appVersion) override;

    // The plugin service's base address (plain HTTP, no trailing "/").
    static std::string sServerBase();
    static void sSetServerBase(const std::string& base);
};
