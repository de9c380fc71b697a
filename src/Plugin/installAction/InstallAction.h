#pragma once
// One installation of one plugin package. A subclass per source (local file,
// the maker's server, an upgrade, a URL) supplies how the package is obtained,
// checked and cleaned up; run() drives the fixed sequence of steps and keeps a
// progress record that listings read while it runs.
#include <atomic>
#include <boost/shared_ptr.hpp>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Plugin/installAction/VerifiedPayload.h"
#include "common/ApiErrorCode.h"
#include "common/PluginInfo.h"
#include "storage/UniqueFd.h"

class InstallJournal;
class UpgradeBackup;

namespace datacenter {
class CurlDownloader;
struct DownloadInfo;
struct DownloadRetry;
}  // namespace datacenter

class InstallAction {
public:
    static const std::string sVerifiedQpkLocalName;  // "verified_korvia.qpk"
    static const std::string sLocalInstallTmpDir;    // "local_install_tmp/", below the plugin root
    static const std::string sInitFilesRecordName;   // "init_files.record"
    // The most a plugin's "init_files.record" may hold: one line per file of
    // a package, far above any real one; a larger one is refused, not read.
    static const size_t sInitFilesRecordLimit;
    static const std::string sRomType;  // "netvale_rom"

    InstallAction(const std::string& id, const std::string& url, const std::string& packagePath);
    virtual ~InstallAction();
    InstallAction(const InstallAction&) = delete;
    InstallAction& operator=(const InstallAction&) = delete;

    // ---- What a source supplies -----------------------------------------
    virtual ApiErrorCode checkBeforeInstall(const std::string& id) = 0;
    virtual ApiErrorCode getPackage() = 0;
    virtual ApiErrorCode verifySign() = 0;
    // Undoes a failed installation of a plugin that was not installed before.
    virtual void cleanWhenFailed();
    virtual std::string statOnceString() = 0;
    // Lets go of the package the pipeline worked on (a download and a
    // verified payload have no name: closing them removes them).
    virtual void cleanPackage();

    // ---- The pipeline -----------------------------------------------------
    // Runs every step on the calling thread: 0, or the first failing step's code.
    ApiErrorCode run();
    bool isInstalling() const { return installing_; }
    // True once run() has returned, its file record and notifications done.
    // An action refused before it started counts as finished.
    bool hasFinished() const { return finished_ || !started_; }
    // Marks the installation started before its thread runs.
    void beginInstall();
    void checkIsUpdate();
    // Disables an installed version before it is replaced: 0 or the status change's code.
    ApiErrorCode changeStatusBeforeInstall();
    // Downloads url_ on the calling thread into an unnamed file of the
    // staging folder; `label` names it in log lines. 0, 2003 or 2007.
    ApiErrorCode downloadPackage(const std::string& label);
    // A copy of the progress record, with the download's progress.
    datacenter::PluginInfo getPluginInfo();
    // The names of the steps entered so far, in order.
    std::vector<std::string> steps();
    // A copy of the download's own record; false before the download began.
    bool getDownloadInfo(datacenter::DownloadInfo& out);
    // The attempts the download rode out and its restarts, in order; empty
    // before the download began.
    std::vector<datacenter::DownloadRetry> downloadRetries();
    // Asks the download to stop (now, or as soon as it begins): it then ends
    // with 2007 and the step that needed it fails. Steps past the download
    // run to their end, so that nothing is left half installed.
    void stopDownload();
    // Checks the package's signature (unless the payload step did) and
    // continues with the verified payload: 0 or 2508.
    ApiErrorCode verifySignImpl(bool keepOriginal);

    // ---- Package steps ----------------------------------------------------
    // Checks a local package's signature into the working directory: 0, 2, 2503 or 2508.
    ApiErrorCode putPackageToTmpDir(const std::string& package, std::string& tmpDir, std::string& zipPath);
    // The "plugin_id" of the payload's manifest, or "".
    std::string getIdFromPackage(const std::string& zipPath);
    // Unpacks the payload into destDir; false for a bad or unsafe archive.
    bool unzip(std::string zipPath, std::string destDir);
    // Unpacks the verified payload (packagePath_ for a source without a
    // signature) into the data directory: 0, 2529 or 1008.
    ApiErrorCode unzipFile();
    // Each check reads `manifest`, by default the plugin's own "etc/manifest".
    static bool sCheckSdkLevel(const std::string& id, const std::string& manifest = "");
    // `shown` is the path the failure text names (by default `manifest`).
    static bool sCheckRomType(const std::string& id, const std::string& manifest = "", const std::string& shown = "");
    static bool sCheckRomVersion(const std::string& id, const std::string& manifest = "");
    // Whether the plugin that `manifest` describes fits this router's
    // firmware, by the install-time rules: 0, 2513, 2521, 2522 or 2527.
    static ApiErrorCode sCheckCompatibility(const std::string& id, const std::string& manifest,
                                            const std::string& shown = "");
    // sCheckCompatibility of the manifest of the verified payload.
    ApiErrorCode checkPackage();
    // Token, status, store entry, configuration file, data migration: 0. The
    // store record and "etc/manifest" are written from the verified
    // payload's manifest, never from what the plugin can rewrite.
    ApiErrorCode installPackage();
    static std::map<std::string, bool> getIgnoreFiles(const std::string& dataDir);
    static bool getFilesPath(const std::string& path, std::vector<std::string>& files,
                             const std::map<std::string, bool>& ignore);
    // Writes "init_files.record": 0, 1038 or 1081.
    ApiErrorCode recordInitFiles();
    // The same for the plugin `id` without a word on standard output;
    // `count` gets the number of paths walked.
    static ApiErrorCode sWriteInitFilesRecord(const std::string& id);
    static ApiErrorCode sWriteInitFilesRecord(const std::string& id, size_t& count);
    ApiErrorCode savePluginPackage();

    // The CA certificate that package signatures must chain to (a setting;
    // by default a file under "/usr/share/halvard/", root-prefixed).
    static std::string sCaCertPath();
    static void sSetCaCertPath(const std::string& path);

    // Hands the action the installation lock its entry point took; run()
    // releases it when it returns. Without one, run() takes the lock itself.
    void setJournal(const std::shared_ptr<InstallJournal>& journal);

    const std::string& pluginId() const { return pluginId_; }
    const std::string& packagePath() const { return packagePath_; }

protected:
    // The payload step of local and URL sources: verifies the package once
    // (the given file's payload copied into an unnamed file of the staging
    // folder `tmpDir`, a download where it is), reads the plugin id from the
    // verified payload and creates the data directory. 0, 2, 2503, 2508, or
    // 2504 without a usable id.
    ApiErrorCode readPayload(std::string& tmpDir, bool checkUpdate);
    // Reads the plugin id from the verified payload and records the
    // installation in the journal: 0, 2504 or 4.
    ApiErrorCode takePayloadId(bool checkUpdate);
    // Verifies packagePath_ and checks that the sign type inside the verified
    // bytes is one of `accepted`: 0, 2509 (type refused) or 2508.
    ApiErrorCode verifySignChecked(std::initializer_list<int> accepted, bool keepOriginal);
    // Records durably what the installation is about to do; false when that failed.
    bool journalStep();
    // Ends a run that could not record itself: 4, with nothing written.
    ApiErrorCode finishUnstarted();
    // The steps of run(); exceptions that escape them end in finishAfterException.
    ApiErrorCode runSteps();
    // Ends an installation a step left by an exception: the record says 4
    // and what the journal knows of is recovered at once.
    ApiErrorCode finishAfterException();
    void setStatus(datacenter::PluginStatus status);
    // Writes the step's name to standard output and keeps it for steps().
    void enterStep(const char* step);
    // 2529 when the plugin's directory is a link or not a folder.
    ApiErrorCode refuseUnusableDataDir() const;
    // Verifies the package where nothing did yet; the signing library's code.
    int verifyOnce();
    // Puts the signer's certificate into the plugin's folder as "dev_cert".
    bool writeSignerCertificate();
    ApiErrorCode finishVerification(int code, int err, bool keepOriginal);
    // What log lines call the package and the verified payload.
    std::string packageLabel() const;
    std::string payloadLabel() const;
    void setFailure(ApiErrorCode code);
    // Before an installed version is disabled: records that the upgrade
    // keeps it aside and whether it was running. False when that failed.
    bool prepareUpgrade();
    // Moves nothing yet: makes the backup the unpacking moves old files into. 0 or 4.
    ApiErrorCode beginBackup();
    // Records that the new version is in place for good and drops the backup.
    void commitUpgrade();
    // Puts the old version back after a failed upgrade and starts it again
    // when it ran before.
    void rollBackUpgrade();

    std::string url_;
    std::string pluginId_;
    std::string packagePath_;
    std::atomic<bool> installing_{false};
    std::atomic<bool> started_{false};
    std::atomic<bool> finished_{false};
    bool isUpdate_ = false;
    std::mutex recordMutex_;  // guards pluginInfo_, steps_, stopRequested_ and downloader_ against readers
    datacenter::PluginInfo pluginInfo_;
    std::vector<std::string> steps_;
    bool stopRequested_ = false;
    boost::shared_ptr<datacenter::CurlDownloader> downloader_;
    std::shared_ptr<InstallJournal> journal_;
    bool journalIdKnown_ = false;
    bool journalUpgrade_ = false;    // the plugin was in the store when its id became known
    bool journalFreshTree_ = false;  // its data directory did not exist then
    bool journalBackup_ = false;     // the upgrade keeps the old version aside
    bool journalCommitted_ = false;  // the new version is enabled
    bool wasEnabled_ = false;        // the old version ran before the upgrade
    bool rolledBack_ = false;        // the old version and its records are back
    std::unique_ptr<UpgradeBackup> backup_;
    std::string downloadLabel_;      // where a download would lie, had it a name
    datacenter::UniqueFd download_;  // the downloaded package, until it is verified
    VerifiedPayload payload_;        // what unpacking reads
    // The verified payload's manifest, kept in the installer's own folder
    // ("local_install_tmp/<id>.manifest") before anything is unpacked.
    bool keepPayloadManifest();
    std::string keptManifestName() const;
    void dropKeptManifest();
};
