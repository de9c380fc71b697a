// The install entry points. At most one installation runs at a time, in this
// process and across processes: every entry point refuses with 2506 while the
// current action is installing or another process holds the install lock.
// Local installations run on the caller's thread; server, upgrade and URL
// installations on a detached thread each, whose outcome is read from the
// action's record.
#include <glog/logging.h>

#include <boost/bind/bind.hpp>
#include <boost/thread/thread.hpp>

#include "Plugin/PluginManager.h"
#include "Plugin/installAction/InstallFromLocal.h"
#include "Plugin/installAction/InstallFromServer.h"
#include "Plugin/installAction/InstallFromUrl.h"
#include "Plugin/installAction/InstallJournal.h"
#include "Plugin/installAction/UpgradeFromServer.h"
#include "common/PluginId.h"

namespace {

// Takes the cross-process install lock into `journal`: 0, 2506 when
// another installer holds it, 4 when the core's private folder, where the
// lock lives, cannot be used (logged with the reason).
ApiErrorCode takeInstallLock(std::shared_ptr<InstallJournal>& journal) {
    if (!InstallJournal::sEnsurePrivateDir()) {
        return API_GENERAL_FAILURE;
    }
    journal = std::make_shared<InstallJournal>();
    if (!journal->tryLock()) {
        LOG(WARNING) << "another installation is running";
        journal.reset();
        return API_INSTALL_IN_PROGRESS;
    }
    return API_SUCCESS;
}

void startDetached(const boost::shared_ptr<InstallAction>& action) {
    boost::thread worker(boost::bind(&InstallAction::run, action));
    worker.detach();
}

}  // namespace

boost::shared_ptr<InstallAction> PluginManager::currentAction() const {
    boost::mutex::scoped_lock lock(actionMutex_);
    return installAction_;
}

bool PluginManager::replaceAction(const boost::shared_ptr<InstallAction>& action) {
    boost::mutex::scoped_lock lock(actionMutex_);
    if (installAction_ && installAction_->isInstalling()) {
        return false;
    }
    installAction_ = action;
    return true;
}

ApiErrorCode PluginManager::installFromLocal(const std::string& path, bool keepPackage) {
    LOG(INFO) << "installFromLocal path:" << path << " keepPackage:" << keepPackage;
    const boost::shared_ptr<InstallAction> action(new InstallFromLocal(path, keepPackage));
    std::shared_ptr<InstallJournal> lock;
    const ApiErrorCode locked = takeInstallLock(lock);
    if (locked != API_SUCCESS) {
        return locked;
    }
    if (!replaceAction(action)) {
        return API_INSTALL_IN_PROGRESS;
    }
    action->setJournal(lock);
    return action->run();
}

ApiErrorCode PluginManager::startServerInstall(const boost::shared_ptr<InstallAction>& action, const std::string& id) {
    boost::mutex::scoped_lock lock(installMutex_);
    std::shared_ptr<InstallJournal> installLock;
    const ApiErrorCode locked = takeInstallLock(installLock);
    if (locked != API_SUCCESS) {
        return locked;
    }
    if (!replaceAction(action)) {
        return API_INSTALL_IN_PROGRESS;
    }
    // The id names the data directory and ends up in command lines.
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "install from server: invalid plugin id '" << id << "'";
        return API_GET_PACKAGE_FAILED;
    }
    const ApiErrorCode checked = action->checkBeforeInstall(id);
    if (checked != API_SUCCESS) {
        return checked;
    }
    action->setJournal(installLock);
    action->beginInstall();
    startDetached(action);
    return API_SUCCESS;
}

ApiErrorCode PluginManager::installFromServer(const std::string& id, const std::string& url) {
    return startServerInstall(boost::shared_ptr<InstallAction>(new InstallFromServer(id, url)), id);
}

ApiErrorCode PluginManager::upgradeFromServer(const std::string& id, const std::string& url) {
    return startServerInstall(boost::shared_ptr<InstallAction>(new UpgradeFromServer(id, url)), id);
}

ApiErrorCode PluginManager::installFromUrl(const std::string& url) {
    LOG(INFO) << "installFromUrl begin";
    const boost::shared_ptr<InstallAction> action(new InstallFromUrl(url));
    std::shared_ptr<InstallJournal> lock;
    const ApiErrorCode locked = takeInstallLock(lock);
    if (locked != API_SUCCESS) {
        return locked;
    }
    if (!replaceAction(action)) {
        return API_INSTALL_IN_PROGRESS;
    }
    action->setJournal(lock);
    // Marked as started at once, so that a second request made before the
    // thread runs is refused too.
    action->beginInstall();
    startDetached(action);
    return API_SUCCESS;
}

ApiErrorCode PluginManager::installFromServerWithOutLock(const std::string&, const std::string&) {
    return API_SUCCESS;
}

ApiErrorCode PluginManager::checkLocalExistBeforeInstall(std::string) {
    return API_SUCCESS;
}

ApiErrorCode PluginManager::getUrlInstallPlugin(datacenter::PluginInfo& out) {
    const boost::shared_ptr<InstallAction> action = currentAction();
    if (!action) {
        return API_NO_SUCH_PLUGIN;
    }
    out = action->getPluginInfo();
    return API_SUCCESS;
}

bool PluginManager::waitForInstallation(int timeoutMs) {
    const boost::shared_ptr<InstallAction> action = currentAction();
    for (int waited = 0; action && !action->hasFinished(); waited += 20) {
        if (waited >= timeoutMs) {
            return false;
        }
        boost::this_thread::sleep_for(boost::chrono::milliseconds(20));
    }
    return true;
}
