#include "Plugin/installAction/InstallAction.h"

#include <glog/logging.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "Plugin/installAction/InstallJournal.h"
#include "Plugin/installAction/PackageFiles.h"
#include "Plugin/installAction/UpgradeBackup.h"
#include "common/PluginId.h"
#include "common/Singleton.h"
#include "sign/PackageSign.h"
#include "storage/Directory.h"
#include "storage/Durability.h"
#include "storage/File.h"
#include "storage/PluginTree.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/CurlDownloader.h"
#include "system/ProcessOwnership.h"
#include "system/RootPrefix.h"
#include "tools/Statistics.h"

const std::string InstallAction::sVerifiedQpkLocalName = "verified_korvia.qpk";
const std::string InstallAction::sLocalInstallTmpDir = "local_install_tmp/";
const std::string InstallAction::sInitFilesRecordName = "init_files.record";
const size_t InstallAction::sInitFilesRecordLimit = 16u << 20;
const std::string InstallAction::sRomType = "netvale_rom";

namespace {

std::mutex gCaMutex;
std::string gCaCertPath;

PluginManager* manager() {
    return Singleton<PluginManager>::instance();
}

bool isEnableSuccess(ApiErrorCode code) {
    return code == API_SUCCESS || code == API_WELCOME_NO_HOMEPAGE;
}

}  // namespace

InstallAction::InstallAction(const std::string& id, const std::string& url, const std::string& packagePath)
    : url_(url), pluginId_(id), packagePath_(packagePath) {
    pluginInfo_.id = id;
}

InstallAction::~InstallAction() = default;

std::string InstallAction::sCaCertPath() {
    std::lock_guard<std::mutex> lock(gCaMutex);
    return gCaCertPath.empty() ? datacenter::RootPrefix::sPath("/usr/share/halvard/plugin_api_ca.crt") : gCaCertPath;
}

void InstallAction::sSetCaCertPath(const std::string& path) {
    std::lock_guard<std::mutex> lock(gCaMutex);
    gCaCertPath = path;
}

void InstallAction::setStatus(datacenter::PluginStatus status) {
    std::lock_guard<std::mutex> lock(recordMutex_);
    pluginInfo_.status = status;
}

void InstallAction::setFailure(ApiErrorCode code) {
    std::lock_guard<std::mutex> lock(recordMutex_);
    pluginInfo_.errorCode = code;
    pluginInfo_.status = datacenter::NOT_INSTALLED;
}

// The name goes to standard output, where installers follow the progress;
// operators' tools that draw their own display read steps() instead.
void InstallAction::enterStep(const char* step) {
    std::cout << step << std::endl;
    std::lock_guard<std::mutex> lock(recordMutex_);
    steps_.push_back(step);
}

std::vector<std::string> InstallAction::steps() {
    std::lock_guard<std::mutex> lock(recordMutex_);
    return steps_;
}

bool InstallAction::getDownloadInfo(datacenter::DownloadInfo& out) {
    boost::shared_ptr<datacenter::CurlDownloader> downloader;
    {
        std::lock_guard<std::mutex> lock(recordMutex_);
        downloader = downloader_;
    }
    if (!downloader) {
        return false;
    }
    out = downloader->getInfo();
    return true;
}

std::vector<datacenter::DownloadRetry> InstallAction::downloadRetries() {
    boost::shared_ptr<datacenter::CurlDownloader> downloader;
    {
        std::lock_guard<std::mutex> lock(recordMutex_);
        downloader = downloader_;
    }
    return downloader ? downloader->retries() : std::vector<datacenter::DownloadRetry>();
}

void InstallAction::stopDownload() {
    std::lock_guard<std::mutex> lock(recordMutex_);
    stopRequested_ = true;
    if (downloader_) {
        downloader_->setState(datacenter::DownloadInfo::sStateStopRequested);
    }
}

void InstallAction::beginInstall() {
    started_ = true;
    installing_ = true;
    setStatus(datacenter::DOWNLOADING);
}

void InstallAction::checkIsUpdate() {
    if (!pluginId_.empty() &&
        datacenter::File::sExists(Singleton<PluginStorageManager>::instance()->getManifestFilePath(pluginId_))) {
        isUpdate_ = true;
    }
}

ApiErrorCode InstallAction::changeStatusBeforeInstall() {
    if (pluginId_.empty() ||
        !datacenter::File::sExists(Singleton<PluginStorageManager>::instance()->getManifestFilePath(pluginId_))) {
        return API_SUCCESS;
    }
    isUpdate_ = true;
    return manager()->changePluginStatus(pluginId_, datacenter::DISABLED);
}

ApiErrorCode InstallAction::downloadPackage(const std::string& label) {
    // The download never has a name: nothing that reaches the user disk can
    // open it and change it between its verification and its unpacking.
    downloadLabel_ = label;
    download_ = VerifiedPayload::sCreateUnnamed(PackageFiles::sStagingDir());
    if (!download_.valid()) {
        LOG(ERROR) << "cannot make an unnamed file in the staging folder: " << std::strerror(errno);
        return API_DOWNLOAD_FAILED;
    }
    boost::shared_ptr<datacenter::CurlDownloader> downloader(new datacenter::CurlDownloader(url_, label, nullptr, 0));
    downloader->setOutputDescriptor(download_.get());
    {
        std::lock_guard<std::mutex> lock(recordMutex_);
        downloader_ = downloader;
        if (stopRequested_) {
            // The transfer's first progress report then ends it.
            downloader->setState(datacenter::DownloadInfo::sStateStopRequested);
        }
    }
    downloader->beginDownloadSync();
    return downloader->getInfo().errorCode;
}

datacenter::PluginInfo InstallAction::getPluginInfo() {
    boost::shared_ptr<datacenter::CurlDownloader> downloader;
    {
        std::lock_guard<std::mutex> lock(recordMutex_);
        downloader = downloader_;
    }
    const int progress = downloader ? static_cast<int>(downloader->getInfo().percent) : -1;
    std::lock_guard<std::mutex> lock(recordMutex_);
    if (progress >= 0) {
        pluginInfo_.progress = progress;
    }
    return pluginInfo_;
}

void InstallAction::setJournal(const std::shared_ptr<InstallJournal>& journal) {
    journal_ = journal;
}

bool InstallAction::journalStep() {
    InstallJournal::Entry entry;
    entry.id = pluginId_;
    if (!pluginId_.empty() && !journalIdKnown_) {
        // Decided once, when the id is first known and before anything of the
        // plugin is written: what a crash would have to undo.
        journalIdKnown_ = true;
        journalUpgrade_ =
            datacenter::File::sExists(Singleton<PluginStorageManager>::instance()->getManifestFilePath(pluginId_));
        journalFreshTree_ = !datacenter::File::sExists(PluginManager::sGetPluginDataPath(pluginId_));
    }
    entry.upgrade = journalUpgrade_;
    entry.freshTree = journalFreshTree_;
    entry.backup = journalBackup_;
    entry.wasEnabled = wasEnabled_;
    entry.committed = journalCommitted_;
    return journal_ && journal_->record(entry);
}

ApiErrorCode InstallAction::run() {
    try {
        return runSteps();
    } catch (const std::exception& e) {
        LOG(ERROR) << "install ERROR: exception " << e.what();
    } catch (...) {
        LOG(ERROR) << "install ERROR: unknown exception";
    }
    return finishAfterException();
}

ApiErrorCode InstallAction::finishAfterException() {
    // No step may leave half an installation: the journal knows what this
    // one had begun, so the recovery the next start would run runs now.
    setFailure(API_GENERAL_FAILURE);
    installing_ = false;
    if (journal_) {
        journal_->unlock();
        journal_.reset();
        InstallJournal::sRecover();
    }
    finished_ = true;
    return API_GENERAL_FAILURE;
}

ApiErrorCode InstallAction::runSteps() {
    if (!journal_) {
        if (!InstallJournal::sEnsurePrivateDir()) {
            return API_GENERAL_FAILURE;
        }
        std::shared_ptr<InstallJournal> own = std::make_shared<InstallJournal>();
        if (!own->tryLock()) {
            LOG(ERROR) << "another installation is running";
            return API_INSTALL_IN_PROGRESS;
        }
        journal_ = own;
    }
    started_ = true;
    installing_ = true;
    checkIsUpdate();
    if (!journalStep()) {
        return finishUnstarted();
    }
    // Local and URL sources learn their id from the package; until then there
    // is no data directory to prepare.
    const std::string dataDir = PluginManager::sGetPluginDataPath(pluginId_);
    if (!dataDir.empty() && !datacenter::Directory::sExists(dataDir)) {
        datacenter::Directory::sCreateDirectory(dataDir);
    }
    LOG(INFO) << "do plugin install.";
    setStatus(datacenter::DOWNLOADING);

    ApiErrorCode code = API_SUCCESS;
    enterStep("getPackage");
    code = getPackage();
    if (code == API_SUCCESS) {
        enterStep("changeStatusBeforeInstall");
        code = prepareUpgrade() ? changeStatusBeforeInstall() : API_GENERAL_FAILURE;
        if (code == API_SUCCESS) {
            code = beginBackup();
        }
    }
    if (code == API_SUCCESS) {
        setStatus(datacenter::INSTALLING);
        enterStep("verifySign");
        code = refuseUnusableDataDir();
        if (code == API_SUCCESS) {
            code = verifySign();
        }
    }
    if (code == API_SUCCESS) {
        enterStep("unzipFile");
        code = unzipFile();
    }
    if (code == API_SUCCESS) {
        enterStep("checkPackage");
        code = checkPackage();
    }
    if (code == API_SUCCESS) {
        enterStep("installPackage");
        code = installPackage();
    }
    if (code == API_SUCCESS) {
        enterStep("changePluginStatus");
        code = manager()->changePluginStatus(pluginId_, datacenter::ENABLED);
        if (isEnableSuccess(code)) {
            code = API_SUCCESS;
            commitUpgrade();
        }
    }
    if (code == API_SUCCESS) {
        setStatus(datacenter::ENABLED);
        enterStep("savePluginPackage");
        Statistics::statOnce(statOnceString(), pluginId_);
    } else {
        setFailure(code);
        LOG(ERROR) << "install ERROR:" << code;
        cleanWhenFailed();
    }
    cleanPackage();
    dropKeptManifest();
    installing_ = false;
    enterStep("RecordInitFiles");
    // A rolled back upgrade has its old file record back, as it was.
    const ApiErrorCode recorded = rolledBack_ ? API_SUCCESS : recordInitFiles();
    manager()->updatePluginListToServer();
    // What the installation reports done is on disk before the journal,
    // which could still undo it, goes.
    if (!pluginId_.empty()) {
        datacenter::Durability::sCommitPath(PluginManager::sGetPluginRootPath().c_str());
    }
    // Everything is in place or cleaned up: nothing is left for a recovery.
    journal_->clear();
    journal_.reset();
    finished_ = true;
    return code != API_SUCCESS ? code : recorded;
}

ApiErrorCode InstallAction::finishUnstarted() {
    // Without a record a crash could leave debris nobody knows of: write nothing.
    LOG(ERROR) << "install ERROR:" << API_GENERAL_FAILURE;
    setFailure(API_GENERAL_FAILURE);
    installing_ = false;
    journal_.reset();
    finished_ = true;
    return API_GENERAL_FAILURE;
}

bool InstallAction::prepareUpgrade() {
    PluginStorageManager* store = Singleton<PluginStorageManager>::instance();
    if (pluginId_.empty() || !datacenter::File::sExists(store->getManifestFilePath(pluginId_))) {
        return true;
    }
    // The files a failed rollback could not put back lie in its backup: a
    // new upgrade would replace that backup.
    if (UpgradeBackup::sPending(pluginId_)) {
        LOG(ERROR) << "upgrade of " << pluginId_ << ": the previous version is not back completely yet; "
                   << "no upgrade until it is";
        return false;
    }
    wasEnabled_ = store->getListablePluginInfoById(pluginId_).status == datacenter::ENABLED;
    journalBackup_ = true;
    return journalStep();
}

ApiErrorCode InstallAction::beginBackup() {
    if (!isUpdate_) {
        return API_SUCCESS;
    }
    // Kept even when it could not be made: a rollback then puts back what it holds.
    backup_.reset(new UpgradeBackup(pluginId_));
    return backup_->begin() ? API_SUCCESS : API_GENERAL_FAILURE;
}

void InstallAction::commitUpgrade() {
    if (!backup_) {
        return;
    }
    // The new version is on disk before the old one may go.
    if (!datacenter::Durability::sCommitPath(PluginManager::sGetPluginRootPath().c_str())) {
        LOG(ERROR) << "upgrade of " << pluginId_ << ": the new version is not known to be on disk; the old one stays";
        return;
    }
    journalCommitted_ = true;
    if (!journalStep()) {
        LOG(WARNING) << "upgrade of " << pluginId_ << ": the commit could not be recorded";
    }
    backup_->discard();
    backup_.reset();
}

void InstallAction::rollBackUpgrade() {
    CommonUtils::sCallSystem(datacenter::planformGetPluginControllorPath() + " -k " + pluginId_);
    // Nothing of either version may write while the old files go back.
    datacenter::ProcessOwnership::sStopAll(pluginId_, PluginManager::sGetPluginDataPath(pluginId_));
    if (!backup_->restore(wasEnabled_)) {
        LOG(ERROR) << "upgrade of " << pluginId_ << ": the installed version could not be put back completely";
    }
    backup_.reset();
    rolledBack_ = true;
    if (!wasEnabled_) {
        return;
    }
    // The version that ran before the upgrade runs again.
    const ApiErrorCode started = manager()->changePluginStatus(pluginId_, datacenter::ENABLED);
    if (!isEnableSuccess(started)) {
        LOG(ERROR) << "upgrade of " << pluginId_ << ": the installed version does not start again: " << started;
    }
}

void InstallAction::cleanWhenFailed() {
    if (pluginId_.empty()) {
        return;  // an unknown id has nothing to undo
    }
    if (backup_) {
        rollBackUpgrade();
        return;
    }
    PluginStorageManager* store = Singleton<PluginStorageManager>::instance();
    if (isUpdate_ || journalUpgrade_) {
        // No backup: the upgrade failed before it touched the installed
        // version (a download, the journal, the status change). Its record
        // and its processes stay exactly as they were.
        LOG(WARNING) << "upgrade of " << pluginId_ << " failed before it changed anything; the installed version stays";
        rolledBack_ = true;  // its file record stays as it is too
        return;
    }
    PluginManager* pluginManager = manager();
    pluginManager->changePluginStatus(pluginId_, datacenter::DISABLED);
    const std::map<std::string, datacenter::PluginInfo> infos = store->getPluginInfos();
    std::string output;
    pluginManager->umountRemoveChrootFolder(pluginId_, output);
    if (journalFreshTree_) {
        // The tree is this installation's own: nothing of it stays, nor its record.
        store->deleteInStorage(pluginId_);
        InstallJournal::sRemoveBelowRoot(PluginManager::sGetPluginDataPath(pluginId_));
        return;
    }
    const auto found = infos.find(pluginId_);
    if (found != infos.end() && !found->second.name.empty()) {
        pluginManager->cleanPluginImpl(pluginId_);
    }
}

void InstallAction::cleanPackage() {
    download_.reset();
    payload_.reset();
}

std::string InstallAction::packageLabel() const {
    return packagePath_.empty() && !downloadLabel_.empty() ? downloadLabel_ + " (unnamed)" : packagePath_;
}

std::string InstallAction::payloadLabel() const {
    if (!download_.valid() && payload_.valid() && !downloadLabel_.empty()) {
        return downloadLabel_ + " (unnamed, verified where it was downloaded)";
    }
    return PluginManager::sGetPluginRootPath() + sLocalInstallTmpDir + sVerifiedQpkLocalName + " (unnamed)";
}

ApiErrorCode InstallAction::refuseUnusableDataDir() const {
    std::string dir = PluginManager::sGetPluginDataPath(pluginId_);
    while (dir.size() > 1 && dir.back() == '/') {
        dir.pop_back();
    }
    struct stat st;
    if (dir.empty() || (::lstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode))) {
        return API_SUCCESS;
    }
    LOG(ERROR) << "installPlugin: the plugin's directory " << dir
               << " is a link or not a folder; nothing is written there";
    return API_UNZIP_FAILED;
}

int InstallAction::verifyOnce() {
    if (payload_.valid()) {
        return packagesign::kOk;  // the payload step verified it already
    }
    if (download_.valid()) {
        return payload_.verifyInPlace(std::move(download_));
    }
    if (packagePath_.empty()) {
        return packagesign::kUnreadableFile;
    }
    const std::string staging = PackageFiles::sStagingDir();
    return staging.empty() ? packagesign::kWriteFailed : payload_.copyFrom(packagePath_, staging);
}

bool InstallAction::writeSignerCertificate() {
    // The signer's certificate goes into the plugin's folder as it was
    // checked, through its descriptor: never into a link put in its place.
    // An upgrade's certificate replaces the installed one: that goes aside first.
    const datacenter::PluginTree dataDir(PluginManager::sGetPluginDataPath(pluginId_));
    return dataDir.isOpen() && (!backup_ || backup_->beforeFile("dev_cert")) &&
           datacenter::File::sWriteAtomically(dataDir.pinnedPath("dev_cert"), payload_.signerPem());
}

ApiErrorCode InstallAction::finishVerification(int code, int err, bool keepOriginal) {
    LOG(INFO) << "installPlugin packagepath is " << packageLabel();
    LOG(INFO) << "installPlugin path is " << payloadLabel();
    if (code == packagesign::kOk && !writeSignerCertificate()) {
        err = errno;
        code = packagesign::kWriteFailed;
    }
    LOG(INFO) << "installPlugin signCode is " << code;
    PackageFiles::sLogSignRefusal("installPlugin", code, err);
    if (code != 0) {
        payload_.reset();
        return API_VERIFY_SIGN_FAILED;
    }
    if (!keepOriginal && !packagePath_.empty()) {
        datacenter::File::sDelete(packagePath_);
    }
    return API_SUCCESS;
}

ApiErrorCode InstallAction::verifySignChecked(std::initializer_list<int> accepted, bool keepOriginal) {
    errno = 0;
    const int code = verifyOnce();
    const int err = errno;
    // Only verified bytes decide what is installed; the type an unverified
    // package claims merely picks which refusal is reported.
    const int type = code == 0 ? payload_.signType() : payload_.claimedSignType();
    LOG(INFO) << "installPlugin signType is " << type;
    if (std::find(accepted.begin(), accepted.end(), type) == accepted.end()) {
        LOG(INFO) << "installPlugin signType is PluginSignTypeError";
        payload_.reset();
        return API_SIGN_TYPE_UNSUPPORTED;
    }
    return finishVerification(code, err, keepOriginal);
}

ApiErrorCode InstallAction::verifySignImpl(bool keepOriginal) {
    errno = 0;
    const int code = verifyOnce();
    return finishVerification(code, errno, keepOriginal);
}

ApiErrorCode InstallAction::readPayload(std::string& tmpDir, bool checkUpdate) {
    ApiErrorCode code = API_SUCCESS;
    if (!download_.valid() && packagePath_.empty()) {
        LOG(ERROR) << "installFromLocal para is EMPTY!!";
        code = API_EMPTY_ARGUMENT;
    } else if (!download_.valid() && !datacenter::File::sExists(packagePath_)) {
        code = API_PACKAGE_NOT_EXIST;
    } else {
        tmpDir = PackageFiles::sStagingDir();
        errno = 0;
        const int signCode = tmpDir.empty() ? packagesign::kWriteFailed : verifyOnce();
        const int err = errno;
        LOG(INFO) << "installFromLocal signCode is " << signCode;
        PackageFiles::sLogSignRefusal("installFromLocal", signCode, err);
        code = signCode == 0 ? API_SUCCESS : API_VERIFY_SIGN_FAILED;
    }
    if (code == API_SUCCESS) {
        code = takePayloadId(checkUpdate);
    }
    const std::string dataDir = PluginManager::sGetPluginDataPath(pluginId_);
    if (!dataDir.empty() && !datacenter::Directory::sExists(dataDir)) {
        datacenter::Directory::sCreateDirectory(dataDir);
    }
    return code;
}

ApiErrorCode InstallAction::takePayloadId(bool checkUpdate) {
    const std::string id = PackageFiles::sGetIdFromPayload(payload_.fd(), payload_.size(), payloadLabel());
    // The id names directories and ends up in command lines: only a plain token will do.
    const std::string problem = datacenter::pluginIdProblem(id);
    if (!problem.empty()) {
        LOG(ERROR) << "getPackage: the package carries no usable plugin id '" << id << "': " << problem;
        return API_GET_PACKAGE_FAILED;
    }
    pluginId_ = id;
    {
        std::lock_guard<std::mutex> lock(recordMutex_);
        pluginInfo_.id = id;
    }
    if (checkUpdate) {
        checkIsUpdate();
    }
    return journalStep() ? API_SUCCESS : API_GENERAL_FAILURE;
}
