#pragma once
// The plugin store item: switching it only leaves a trace in the log.
#include <glog/logging.h>

#include "Plugin/PluginItemBase.h"

class OrbisStorePlugin : public PluginItemBase {
public:
    ApiErrorCode turnOn(const std::string&) override {
        LOG(INFO) << "OrbisStorePlugin turn ON!";
        return API_SUCCESS;
    }
    ApiErrorCode turnOff() override {
        LOG(INFO) << "OrbisStorePlugin turn Off!";
        return API_SUCCESS;
    }
    ApiPluginCode getCode() const override { return API_PLUGIN_ORBIS_STORE; }
};
