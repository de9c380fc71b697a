#include "Plugin/installAction/UpgradeFromServer.h"

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"

UpgradeFromServer::UpgradeFromServer(const std::string& id, const std::string& url) : InstallFromServer(id, url) {}

ApiErrorCode UpgradeFromServer::checkBeforeInstall(const std::string& id) {
    return Singleton<PluginManager>::instance()->checkLocalExistBeforeInstall(id);
}

std::string UpgradeFromServer::statOnceString() {
    return "plugin_upgrade_server";
}
