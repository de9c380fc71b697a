#pragma once
// A built-in feature that is switched on and off by code rather than as a plugin.
#include <string>

#include "common/ApiErrorCode.h"

class PluginItemBase {
public:
    virtual ~PluginItemBase() = default;
    virtual ApiErrorCode turnOn(const std::string& parameter) = 0;
    virtual ApiErrorCode turnOff() = 0;
    virtual ApiPluginCode getCode() const = 0;
};
