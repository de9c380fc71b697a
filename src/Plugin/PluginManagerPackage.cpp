// The manager's package helpers: the same contracts as the install action's.
#include "Plugin/PluginManager.h"
#include "Plugin/installAction/PackageFiles.h"
#include "storage/File.h"

std::string PluginManager::getIdFromPackage(const std::string& zipPath) {
    return PackageFiles::sGetIdFromPackage(zipPath);
}

ApiErrorCode PluginManager::putPackageToTmpDir(const std::string& package, std::string& tmpDir, std::string& zipPath) {
    return PackageFiles::sPutPackageToTmpDir(package, tmpDir, zipPath);
}

bool PluginManager::unzip(std::string zipPath, std::string destDir) {
    return PackageFiles::sUnzip(zipPath, destDir);
}

ApiErrorCode PluginManager::savePluginPackage(const std::string& id, const std::string& packagePath) {
    const std::string archive = PackageFiles::sPackageArchiveDir() + id;
    if (!id.empty() && packagePath != archive) {
        datacenter::File::sDelete(archive);
        if (datacenter::File::sRawCopyFile(packagePath, archive) == datacenter::File::sCopyOk) {
            datacenter::File::sDelete(packagePath);
        }
    }
    return API_SUCCESS;
}
