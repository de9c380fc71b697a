#pragma once
// The global link item: switches the router's traffic control for it.
#include <glog/logging.h>

#include "Plugin/PluginItemBase.h"
#include "system/CommonUtils.h"

class GlobalLinkPlugin : public PluginItemBase {
public:
    ApiErrorCode turnOn(const std::string&) override {
        LOG(INFO) << "GlobalLinkPlugin turn ON!";
        CommonUtils::sCallSystem("/usr/sbin/sysapi traffic_ctl glink on");
        return API_SUCCESS;
    }
    ApiErrorCode turnOff() override {
        LOG(INFO) << "GlobalLinkPlugin turn OFF!";
        CommonUtils::sCallSystem("/usr/sbin/sysapi traffic_ctl glink off");
        return API_SUCCESS;
    }
    ApiPluginCode getCode() const override { return API_PLUGIN_GLOBAL_LINK; }
};
